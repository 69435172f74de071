/*
 * rebuild_progress: how far a rebuild is, told from the store that it writes.
 */
#pragma once

#include <string>

namespace kolmo
{

/*
 * The number of replies in a responder store that somebody else is writing: no lock is taken, which might
 * hold the writer up, so the number is good to look at only.  0 when it cannot be told.
 */
[[nodiscard]] unsigned long count_replies_unlocked(const std::string &store);

} // namespace kolmo
