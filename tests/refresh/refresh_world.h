/*
 * refresh_world: whole refreshes on the real paths, and what they must leave alone.
 */
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/run/panel_world.h"
#include "tests/support/panel_database.h"
#include "tests/support/program_run.h"

namespace kolmo::testing
{

using Lines = std::vector<std::string>;

/* A file, bytes and all that stat(2) tells but the time of the last reading. */
struct FileState {
    explicit FileState(const std::string &file);

    std::string path;
    bool exists;
    std::string bytes;
    struct stat status = {};
};

/* Nobody has touched the file since. */
void expect_untouched(const FileState &before);

/*
 * A process outside of the refresh's namespaces, as a service of the panel's would be: for each line that
 * somebody writes to /run/ask it runs the commands, and answers on /run/answer.
 */
class Service
{
public:
    explicit Service(const std::string &commands);
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    /* For a script in the namespaces: asks, and waits for the answer. */
    static constexpr char ask[] = "echo please >/run/ask; read -r answer </run/answer";

private:
    pid_t process_;
};

/* A server that takes connections and never says a word, on a unix socket that qsx.conf leads to. */
inline const std::string silent_socket = "/run/silent.sock";

/* Waits for a file that a stand-in makes when it is reached; the test fails without it. */
void wait_for_file(const std::string &path);

/* A script for --rebuild: commands, of which "$rebuild" runs the real one.  Returns its path. */
inline const std::string script_path = "/run/rebuild-script";
std::string rebuild_script(const std::string &commands);

class RefreshTest : public ::testing::Test
{
protected:
    /* Domains a.test, b.test and c.test, whose mailboxes info answer; a.test has the alias alias.test.  Both
       live stores are as a rebuild makes them, then every subject in the panel changes. */
    void SetUp() override;

    /* No folder, mount, process or lock of a refresh is left. */
    void TearDown() override;

    static std::unique_ptr<Program> start(std::vector<std::string> arguments = {});
    static ProgramResult refresh(std::vector<std::string> arguments = {});
    static void rebuild();

    /* The same below strace(1), whose options come first; the process is the refresh's. */
    static std::unique_ptr<Program> start_traced(std::vector<std::string> options,
                                                 const std::vector<std::string> &arguments = {});

    /* Both live stores are what a rebuild makes of the panel now (but for handlers of others). */
    static void expect_fresh();

    std::unique_ptr<PanelDatabase> panel;
};

/* Folders, mounts and processes of a refresh, if it had left any. */
Lines what_is_left();

} // namespace kolmo::testing
