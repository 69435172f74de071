/*
 * file_faults: what creating a store asks of the system, answered as a test wants.
 *
 * For the test program in which getgrnam, chown, chmod, stat, mkdir, dirname and sqlite3_exec lead here
 * (-Wl,--wrap=).  The group "popuser" always exists, with the number 4242, and nothing is ever given to
 * anybody; all else is real unless it has to fail.
 */
#pragma once

#include <map>
#include <string>
#include <vector>

namespace kolmo::testing
{

class FileFaults
{
public:
    FileFaults();
    ~FileFaults();
    FileFaults(const FileFaults &) = delete;
    FileFaults &operator=(const FileFaults &) = delete;

    /* Makes a function ("mkdir") fail with this errno from now on; 0 leaves errno alone. */
    void fail(const std::string &function, int error) { errors_[function] = error; }

    /* The calls so far but for stat: "getgrnam NAME", "chown PATH UID GID", "chmod PATH MODE", "mkdir PATH
     * MODE". */
    [[nodiscard]] const std::vector<std::string> &calls() const { return calls_; }

    /* The script that sqlite3_exec was last given. */
    [[nodiscard]] const std::string &script() const { return script_; }
    void note_script(const char *script) { script_ = script; }

    /* For the functions themselves: notes the call; true when it has to fail, with errno set. */
    bool fails(const std::string &function, const std::string &arguments);

private:
    std::map<std::string, int> errors_;
    std::vector<std::string> calls_;
    std::string script_;
};

} // namespace kolmo::testing
