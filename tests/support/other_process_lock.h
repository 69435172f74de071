/*
 * other_process_lock: a second process that locks a store's file.
 */
#pragma once

#include <string>

#include <sys/types.h>

#include "common/owned.h"

namespace kolmo::testing
{

/*
 * An exclusive lock on an SQLite file, held by another process from the end of the constructor for so many
 * milliseconds.  The connections of this process to the file must be idle at that moment: SQLite's locks do
 * not survive a fork.
 */
class OtherProcessLock
{
public:
    /* For so long, or, if it is -1, as long as this lives. */
    OtherProcessLock(const std::string &path, int milliseconds);

    /* Ends the lock and waits for the process's end. */
    ~OtherProcessLock();

    OtherProcessLock(const OtherProcessLock &) = delete;
    OtherProcessLock &operator=(const OtherProcessLock &) = delete;

private:
    pid_t process_ = -1;
    Fd ready_;
};

} // namespace kolmo::testing
