/*
 * write_faults: the calls by which SQLite and a file's replacement write, of which the nth fails or is the
 * process's last.
 *
 * SQLite's own calls are met where SQLite lets them be replaced (sqlite3_vfs.xSetSystemCall); those of the
 * code under test by the linker (WRAPS write fsync fchown fchmod rename unlink).  A call that is only for
 * reading is none of them.
 */
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kolmo::testing
{

enum class WriteFault {
    fails_once, /* no space left */
    fails_on,   /* and so do all that follow */
    kills       /* the process is killed before it */
};

class WriteFaults
{
public:
    /* From here on the nth call has the fault.  One at a time. */
    WriteFaults(int nth, WriteFault fault);

    /* Before the next call this happens, once, as another process might do it; no call fails. */
    explicit WriteFaults(std::function<void()> meanwhile);

    ~WriteFaults();
    WriteFaults(const WriteFaults &) = delete;
    WriteFaults &operator=(const WriteFaults &) = delete;

    /* Whether there was an nth call. */
    [[nodiscard]] bool has_struck() const;

    /* The names of the calls so far that the code under test made itself, but for write. */
    [[nodiscard]] static const std::vector<std::string> &calls();
};

} // namespace kolmo::testing
