/*
 * lock: two refreshes never meet, and the next one knows what a killed one has left.
 */
#pragma once

#include <string>

#include "common/owned.h"
#include "verify/store_copy.h"

namespace kolmo
{

inline constexpr char run_lock_path[] = "/run/mail_responders_refresh.lock";

class RunLock
{
public:
    /*
     * Takes the lock (flock(2)) on run_lock_path, which is made when it is missing and stays: a file that was
     * removed while somebody waits for it would be locked twice.
     *
     * wait_seconds  how long another refresh is waited for
     * Returns 0, or -1 after telling the trouble.  The kernel lets go of the lock when the process ends and
     * the last child that was forked without a new program.
     */
    [[nodiscard]] int take(int wait_seconds, const TroubleSink &trouble);

    /* The folder that the lock's last holder has left behind; empty when it has left nothing. */
    [[nodiscard]] const std::string &left_folder() const { return left_folder_; }

    /* Notes that a folder is about to be made (empty: that it is gone), with our process id.  Returns 0, or
       -1: errno says why. */
    [[nodiscard]] int note_folder(const std::string &folder);

private:
    Fd file_;
    std::string left_folder_;
};

} // namespace kolmo
