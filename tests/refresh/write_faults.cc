#include "tests/refresh/write_faults.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/types.h>
#include <unistd.h>

extern "C" {

ssize_t __real_write(int file, const void *bytes, std::size_t size);
int __real_unlink(const char *path);
int __real_fsync(int file);
int __real_fchown(int file, uid_t owner, gid_t group);
int __real_fchmod(int file, mode_t mode);
int __real_rename(const char *from, const char *to);

} // extern "C"

namespace kolmo::testing
{

namespace
{

struct State {
    bool is_armed = false;
    int left = 0;
    WriteFault fault = WriteFault::fails_once;
    std::function<void()> meanwhile = {};
};

State state;
std::vector<std::string> calls_made;

void note(const char *call)
{
    if (state.is_armed)
        calls_made.emplace_back(call);
}

/* Whether the call at hand fails. */
bool strikes()
{
    if (!state.is_armed)
        return false;
    if (state.meanwhile) {
        std::exchange(state, {}).meanwhile();
        return false;
    }
    state.left--;
    if (state.left > 0 || (state.left < 0 && state.fault == WriteFault::fails_once))
        return false;
    if (state.fault == WriteFault::kills)
        (void)::raise(SIGKILL);
    errno = ENOSPC;
    return true;
}

int open_or_fail(const char *path, int flags, int mode)
{
    return (flags & O_CREAT) != 0 && strikes() ? -1 : ::open(path, flags, mode);
}

ssize_t write_or_fail(int file, const void *bytes, std::size_t size)
{
    return strikes() ? -1 : __real_write(file, bytes, size);
}

ssize_t pwrite_or_fail(int file, const void *bytes, std::size_t size, off_t offset)
{
    return strikes() ? -1 : ::pwrite(file, bytes, size, offset);
}

int ftruncate_or_fail(int file, off_t size)
{
    return strikes() ? -1 : ::ftruncate(file, size);
}

int unlink_or_fail(const char *path)
{
    return strikes() ? -1 : __real_unlink(path);
}

struct Replacement {
    const char *name;
    sqlite3_syscall_ptr call;
};

const std::array replacements = {
    Replacement{"open", reinterpret_cast<sqlite3_syscall_ptr>(open_or_fail)},
    Replacement{"write", reinterpret_cast<sqlite3_syscall_ptr>(write_or_fail)},
    Replacement{"pwrite", reinterpret_cast<sqlite3_syscall_ptr>(pwrite_or_fail)},
    Replacement{"pwrite64", reinterpret_cast<sqlite3_syscall_ptr>(pwrite_or_fail)},
    Replacement{"ftruncate", reinterpret_cast<sqlite3_syscall_ptr>(ftruncate_or_fail)},
    Replacement{"unlink", reinterpret_cast<sqlite3_syscall_ptr>(unlink_or_fail)},
};

} // namespace

WriteFaults::WriteFaults(int nth, WriteFault fault) : WriteFaults(std::function<void()>())
{
    state = {true, nth, fault};
}

WriteFaults::WriteFaults(std::function<void()> meanwhile)
{
    sqlite3_vfs *const files = sqlite3_vfs_find(nullptr);

    for (const Replacement &replacement : replacements)
        if (files->xGetSystemCall(files, replacement.name) != nullptr) {
            EXPECT_EQ(files->xSetSystemCall(files, replacement.name, replacement.call), SQLITE_OK);
        }
    state = {true, 0, WriteFault::fails_once, std::move(meanwhile)};
    calls_made.clear();
}

WriteFaults::~WriteFaults()
{
    sqlite3_vfs *const files = sqlite3_vfs_find(nullptr);

    state = {};
    for (const Replacement &replacement : replacements)
        (void)files->xSetSystemCall(files, replacement.name, nullptr);
}

const std::vector<std::string> &WriteFaults::calls()
{
    return calls_made;
}

bool WriteFaults::has_struck() const
{
    return state.left <= 0;
}

} // namespace kolmo::testing

using kolmo::testing::note;
using kolmo::testing::strikes;

extern "C" {

ssize_t __wrap_write(int file, const void *bytes, std::size_t size)
{
    return strikes() ? -1 : __real_write(file, bytes, size);
}

int __wrap_fsync(int file)
{
    note("fsync");
    return strikes() ? -1 : __real_fsync(file);
}

int __wrap_fchown(int file, uid_t owner, gid_t group)
{
    note("fchown");
    return strikes() ? -1 : __real_fchown(file, owner, group);
}

int __wrap_fchmod(int file, mode_t mode)
{
    note("fchmod");
    return strikes() ? -1 : __real_fchmod(file, mode);
}

int __wrap_rename(const char *from, const char *to)
{
    note("rename");
    return strikes() ? -1 : __real_rename(from, to);
}

int __wrap_unlink(const char *path)
{
    note("unlink");
    return strikes() ? -1 : __real_unlink(path);
}

} // extern "C"
