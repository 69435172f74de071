/*
 * other_process_lock: a second process that locks a store's file.
 */
#pragma once

#include <string>

#include <sys/types.h>

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
    OtherProcessLock(const std::string &path, int milliseconds);

    /* Waits for the process's end. */
    ~OtherProcessLock();

    OtherProcessLock(const OtherProcessLock &) = delete;
    OtherProcessLock &operator=(const OtherProcessLock &) = delete;

private:
    pid_t process_ = -1;
};

} // namespace kolmo::testing
