#include "refresh/rebuild_program.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

#include <sys/wait.h>
#include <unistd.h>

namespace kolmo
{

namespace
{

const char installed_program[] = KOLMO_SBIN_DIR "/mail_responders_rebuild";

std::string program_beside()
{
    std::error_code error;

    return std::filesystem::read_symlink("/proc/self/exe", error).parent_path() / "mail_responders_rebuild";
}

} // namespace

int find_rebuild_program(const std::string &wanted, std::string *program, const TroubleSink &trouble)
{
    const std::string beside = program_beside();

    if (!wanted.empty()) {
        *program = wanted;
        if (::access(wanted.c_str(), X_OK) == 0)
            return 0;
        trouble(wanted + " cannot be executed: " + std::strerror(errno));
        return -1;
    }
    for (const std::string &path : {beside, std::string(installed_program)}) {
        *program = path;
        if (::access(path.c_str(), X_OK) == 0)
            return 0;
    }
    trouble("there is no " + beside + " and no " + installed_program + ": --rebuild PATH says where it is");
    return -1;
}

std::string rebuild_end_text(int wait_status)
{
    if (WIFSIGNALED(wait_status)) {
        const int number = WTERMSIG(wait_status);
        const char *const words = sigdescr_np(number);

        return "mail_responders_rebuild was ended by signal " + std::to_string(number) + " (" +
               (words != nullptr ? words : "unknown") + ')';
    }
    return "mail_responders_rebuild has failed with status " + std::to_string(WEXITSTATUS(wait_status));
}

} // namespace kolmo
