#include "verify/companion.h"
#include "verify/program.h"

int main(int argc, char **argv)
{
    return kolmo::run_companion("mail_responders_verify", argc, argv, kolmo::verify_program);
}
