/*
 * rebuild_program: which mail_responders_rebuild is run, and the words for how it ended.
 */
#pragma once

#include <string>

#include "verify/store_copy.h"

namespace kolmo
{

/*
 * Finds the program: the one that was asked for, else the one in the folder of this program, else the one
 * where this program is installed to.
 *
 * wanted  a path; empty for none
 * Returns 0, or -1 after telling the trouble: it is not there, or cannot be executed.
 */
[[nodiscard]] int find_rebuild_program(const std::string &wanted, std::string *program,
                                       const TroubleSink &trouble);

/* "mail_responders_rebuild has failed with status 255", for a wait status other than 0. */
[[nodiscard]] std::string rebuild_end_text(int wait_status);

} // namespace kolmo
