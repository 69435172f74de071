/* The program itself: its command line, its words, what it cannot trust, and that it writes nothing. */
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "exec/closefrom.h"
#include "tests/support/environment.h"
#include "tests/support/killed_writer.h"
#include "tests/support/other_process_lock.h"
#include "tests/support/program_run.h"
#include "tests/support/program_text.h"
#include "tests/support/sandbox.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"
#include "tests/verify/verify_world.h"

namespace kolmo
{

namespace
{

using namespace testing;

ProgramResult run(std::vector<std::string> arguments = {}, const std::vector<int> &closed = {})
{
    ProgramOptions options;

    options.argv = std::move(arguments);
    options.closed = closed;
    options.argv.insert(options.argv.begin(), "mail_responders_verify");
    return Program(KOLMO_VERIFY_PROGRAM, options).finish();
}

class ProgramTest : public VerifyTest
{
protected:
    void SetUp() override
    {
        VerifyTest::SetUp();
        panel->execute(sql_domain(1, "a.test") + sql_answering(1, 1, "info"));
        ASSERT_EQ(rebuild().status, 0);
    }

    /* Status 2, and these words on standard error, in the JSON too. */
    static void expect_trouble(const std::string &words, const std::vector<std::string> &arguments = {})
    {
        const ProgramResult text = run(arguments);

        EXPECT_EQ(text.status, 2);
        EXPECT_NE(unwrapped(text.err).find(words), std::string::npos) << text.err << text.out;
        EXPECT_NE(text.out.find(" not to be trusted"), std::string::npos) << text.out;

        std::vector<std::string> with_json = arguments;

        with_json.emplace_back("--json");

        const ProgramResult json = run(with_json);

        EXPECT_EQ(json.status, 2);
        EXPECT_NE(json.out.find("{\"trouble\":\""), std::string::npos) << json.out;
        EXPECT_EQ(json.err, "");
    }
};

TEST_F(ProgramTest, StatusSaysWhetherAllIsAsThePanelSays)
{
    EXPECT_EQ(run().status, 0);
    change_store(responder_store, "DELETE FROM autoresponder");
    EXPECT_EQ(run().status, 1);
}

/* On one stream, too, what is looked at comes before what is wrong with it. */
TEST_F(ProgramTest, HeadingComesBeforeTrouble)
{
    ProgramOptions options;

    options.argv = {"sh", "-c", "exec " KOLMO_VERIFY_PROGRAM " 2>&1"};
    std::filesystem::remove(handlers_store);

    const std::string said = Program("/bin/sh", options).finish().out;

    EXPECT_LT(said.find("handlers store   "), said.find("mail_responders_verify: ")) << said;
}

/* A note and a finding that no buffer holds go out while the database's connection is needed: there would be
   trouble if they went into it. */
TEST_F(ProgramTest, WithoutStandardStreamsNothingGoesIntoTheDatabase)
{
    panel->execute("ALTER TABLE mail ENGINE = Aria; UPDATE mail_resp SET text = REPEAT('x', 100000)");
    EXPECT_EQ(run({"--json"}, {1}).status, 1);
    EXPECT_EQ(run({}, {2}).status, 1);
    EXPECT_EQ(run({}, {0, 1, 2}).status, 1);
}

TEST_F(ProgramTest, OutputThatIsLostIsTrouble)
{
    for (const std::string arguments : {"", "--json", "--help"}) {
        ProgramOptions options;

        options.argv = {"sh", "-c", "exec " KOLMO_VERIFY_PROGRAM " " + arguments + " >/dev/full"};
        change_store(responder_store, "DELETE FROM autoresponder");

        const ProgramResult result = Program("/bin/sh", options).finish();

        EXPECT_EQ(result.status, 2) << arguments;
        EXPECT_EQ(result.err, "mail_responders_verify: standard output cannot be written\n") << arguments;
    }
}

TEST_F(ProgramTest, WhatItDoesNotUnderstandIsUsageOnStandardError)
{
    for (const std::vector<std::string> &arguments : {std::vector<std::string>{"--nonsense"},
                                                      {"a.test"},
                                                      {"--domain"},
                                                      {"--wait", "soon"},
                                                      {"--wait", "-1"},
                                                      {"--color", "red"},
                                                      {"--color", "1"},
                                                      {"--domain", "a.test", "b.test"}}) {
        const ProgramResult result = run(arguments);

        EXPECT_EQ(result.status, 2) << arguments.front();
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err.find("Usage: mail_responders_verify"), std::string::npos) << result.err;
    }
}

TEST_F(ProgramTest, HelpAndVersionGoToStandardOutput)
{
    for (const char *option : {"-h", "--help"}) {
        const ProgramResult result = run({option});

        EXPECT_EQ(result.status, 0);
        EXPECT_NE(result.out.find("--domain NAME"), std::string::npos) << result.out;
        EXPECT_NE(result.out.find("\nExit status: 0 "), std::string::npos) << result.out;
        EXPECT_EQ(result.err, "");
    }
    EXPECT_EQ(run({"-V"}).out, "mail_responders_verify " KOLMO_VERSION "\n");
}

TEST_F(ProgramTest, FirstIsSaidWhichDatabaseWasAskedAndWhoSaidSo)
{
    EXPECT_NE(unwrapped(run().out).find(
                  "panel database   qsx on localhost (/var/run/mysqld/mysqld.sock), as admin host "
                  "by default, user by default, database by default, password from "
                  "/etc/qsx/.qsx.shadow, socket by default\n"),
              std::string::npos);
    write_file(dsn_path, "[kolmo]\nhost = localhost\nusername = admin\ndbname = qsx\npassword = " +
                             sandbox_variable("KOLMO_SANDBOX_PASSWORD") + "\n");
    write_file(conf_path, "MYSQL_SOCKET /run/mysqld/mysqld.sock\n");

    const ProgramResult result = run();

    EXPECT_EQ(result.status, 0);
    EXPECT_NE(
        unwrapped(result.out).find("host from /etc/qsx/private/dsn.ini, user from /etc/qsx/private/dsn.ini"),
        std::string::npos);
    EXPECT_NE(unwrapped(result.out).find("socket from /etc/qsx/qsx.conf"), std::string::npos);
    EXPECT_EQ(result.out.find(sandbox_variable("KOLMO_SANDBOX_PASSWORD")), std::string::npos);

    /* A socket serves the local host only. */
    write_file(dsn_path, "[kolmo]\nhost = 127.0.0.1\nport = 1\n");

    const std::string remote = unwrapped(run().out);

    EXPECT_NE(remote.find("qsx on 127.0.0.1 (port 1), as admin"), std::string::npos) << remote;
    EXPECT_NE(remote.find("port from /etc/qsx/private/dsn.ini\n"), std::string::npos) << remote;
    EXPECT_EQ(remote.find("sock"), std::string::npos) << remote;
}

TEST_F(ProgramTest, PanelThatCannotBeAskedIsTrouble)
{
    struct Row {
        std::function<void()> prepare;
        const char *words;
    };
    const Row rows[] = {
        {[] { write_file(shadow_path, "wrong\n"); }, "Unable to connect to Kolmo Database: Access denied"},
        {[] { write_file(conf_path, "MYSQL_SOCKET /run/nobody\n"); }, "Unable to connect to Kolmo Database"},
        {[] { std::filesystem::remove(shadow_path); }, "Unable to open admin password file"},
        {[] { std::filesystem::create_directory(dsn_path); }, "dsn.ini is there, but is no file"},
        {[] { std::filesystem::create_directory(conf_path); }, "qsx.conf is there, but is no file"},
        {[] { std::filesystem::create_symlink("/nowhere", dsn_path); },
         "dsn.ini is there, but cannot be read"},
    };

    for (const Row &row : rows) {
        reset_panel_files();
        row.prepare();
        expect_trouble(row.words);
    }
}

TEST_F(ProgramTest, EachMissingTableOfThePanelIsTrouble)
{
    for (const std::string table : {"domains", "DomainServices", "mail", "mail_resp", "resp_forward",
                                    "resp_attach", "domain_aliases", "ServiceNodeConfiguration"}) {
        panel->execute("RENAME TABLE " + table + " TO hidden");
        expect_trouble("Table 'qsx." + table + "' doesn't exist");
        panel->execute("RENAME TABLE hidden TO " + table);
    }
}

TEST_F(ProgramTest, TableWithoutSnapshotsIsSaid)
{
    panel->execute("ALTER TABLE mail ENGINE = Aria");

    const ProgramResult result = run();

    EXPECT_EQ(result.status, 0);
    EXPECT_NE(unwrapped(result.err).find("note: table mail of the panel has no snapshots (Aria)"),
              std::string::npos);
}

void write_over(const std::string &path, std::streamoff offset, const std::string &bytes)
{
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);

    file.seekp(offset);
    file << bytes;
}

TEST_F(ProgramTest, StoreThatCannotBeTrustedIsTroubleAndIsNotJudged)
{
    struct Row {
        std::function<void(const std::string &path)> prepare;
        const char *words;
    };
    const Row rows[] = {
        {[](const std::string &path) { std::filesystem::remove(path); }, "cannot be read: No such file"},
        {[](const std::string &path) { std::filesystem::resize_file(path, 0); },
         "is empty: it has no tables"},
        {[](const std::string &path) { write_file(path, "garbage", 0644); }, "is no database"},
        {[](const std::string &path) { write_over(path, 100, std::string(3900, 'x')); }, "is damaged"},
        {[](const std::string &path) { change_store(path, "PRAGMA journal_mode = WAL"); }, "is in WAL mode"},
        {[](const std::string &path) {
             std::filesystem::remove(path);
             std::filesystem::create_directory(path);
         },
         "is no file"},
        {[](const std::string &path) {
             std::filesystem::remove(path);
             change_store(path, "CREATE TABLE other (x)");
         },
         "store: no such table"},
        {[](const std::string &path) {
             kill_writer(path,
                         "UPDATE " + std::string(path == handlers_store ? "handlers SET context = 'x'"
                                                                        : "autoresponder SET body = 'x'"));
         },
         "has a hot journal"},
    };

    for (const std::string &store : {responder_store, handlers_store}) {
        for (const Row &row : rows) {
            reset_panel_files();
            ASSERT_EQ(rebuild().status, 0);
            row.prepare(store);
            expect_trouble(row.words);
            EXPECT_EQ(look().findings, Lines{}) << row.words;
        }
    }
}

/* The store is not to blame, and neither is it where only the index of its copy has no room. */
TEST_F(ProgramTest, FullFolderForTemporaryFilesIsTroubleOfItsOwn)
{
    const TempDir folder;
    const EnvironmentVariable temporary("TMPDIR", folder.path().c_str());
    const std::string words =
        "mail_responders_verify: no private copy can be made in the folder for temporary "
        "files (TMPDIR): no space";

    ASSERT_EQ(::mount("tmpfs", folder.path().c_str(), "tmpfs", 0, "size=6m"), 0);
    change_store(handlers_store, "CREATE TABLE filler AS SELECT zeroblob(9000000)");
    expect_trouble(words);
    change_store(handlers_store, "DROP TABLE filler; VACUUM");
    change_store(
        responder_store,
        "CREATE TABLE plain AS SELECT * FROM autoresponder; DROP TABLE autoresponder; ALTER TABLE plain "
        "RENAME TO autoresponder; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT "
        "4500) INSERT INTO autoresponder (mn) SELECT printf('%01000d', i) FROM n");
    expect_trouble(words);
    EXPECT_EQ(::umount2(folder.path().c_str(), MNT_DETACH), 0);
}

TEST_F(ProgramTest, LockedStoreIsTroubleAtTheEndOfTheWait)
{
    StoreLock lock(StoreLock::Kind::exclusive);

    expect_trouble("is locked by another process", {"--wait", "0"});
}

TEST_F(ProgramTest, LockThatIsLetGoIsWaitedFor)
{
    const OtherProcessLock lock(responder_store, 300);

    EXPECT_EQ(run().status, 0);
}

/* Commits pairs of headers that are alike, as fast as it can, until it is killed. */
pid_t start_writer()
{
    const pid_t writer = ::fork();

    if (writer != 0)
        return writer;

    sqlite3 *db = nullptr;

    (void)sqlite3_open(responder_store.c_str(), &db);
    (void)sqlite3_busy_timeout(db, 10000);
    while (true)
        (void)sqlite3_exec(
            db,
            "BEGIN; UPDATE extra_headers SET value = value + 1 WHERE name = 'X-A'; UPDATE extra_headers "
            "SET value = value + 1 WHERE name = 'X-B'; COMMIT",
            nullptr, nullptr, nullptr);
}

TEST_F(ProgramTest, StoreThatIsWrittenMeanwhileIsSeenAtOneMoment)
{
    panel->execute(sql_headers(R"({"X-A": "0", "X-B": "0"})"));
    ASSERT_EQ(rebuild().status, 0);

    const pid_t writer = start_writer();

    for (int i = 0; i < 20; i++) {
        const Look seen = look();
        Lines values;

        EXPECT_EQ(seen.troubles, Lines{});
        for (const std::string &line : seen.findings)
            values.push_back(line.substr(line.rfind(' ')));
        if (values.size() == 2) {
            EXPECT_EQ(values[0], values[1]);
        } else {
            EXPECT_EQ(values, Lines{}); /* before the writer's first commit */
        }
    }
    EXPECT_EQ(::kill(writer, SIGKILL), 0);
    EXPECT_EQ(::waitpid(writer, nullptr, 0), writer);
}

TEST_F(ProgramTest, NamesCannotSteerATerminal)
{
    panel->execute(sql_mailbox(2, 1, "x\x1b[2J\x7f\xc2\x9b\xe2\x80\xae\\'\"") + sql_reply(2));

    const ProgramResult text = run();

    EXPECT_EQ(text.status, 1);
    EXPECT_NE(text.out.find("reply-missing             x\\x1b[2j\\x7f\\x9b\\u202e\\\\'\"@a.test"),
              std::string::npos)
        << text.out;

    const ProgramResult json = run({"--json"});

    EXPECT_NE(json.out.find("\"address\":\"x\\u001b[2j\\u007f\\u009b\xe2\x80\xae\\\\'\\\"@a.test\""),
              std::string::npos)
        << json.out;
}

TEST_F(ProgramTest, NullsOfThePanelAreEmptyTexts)
{
    panel->execute(
        "ALTER TABLE mail_resp MODIFY key_where VARCHAR(9) NULL; UPDATE mail_resp SET keystr = NULL, "
        "key_where = NULL, subject = NULL, reply_to = NULL, content_type = NULL, charset = NULL, text = "
        "NULL");
    ASSERT_EQ(rebuild().status, 0);
    EXPECT_EQ(run().status, 0);
}

/* Everything that could be written to is made read-only, and is as it was afterwards. */
TEST_F(ProgramTest, NothingIsWritten)
{
    struct Before {
        std::string path;
        std::string bytes;
        struct stat status;
    };
    std::vector<Before> files;
    const char *const folder = "/var/lib/kolmo";

    panel->execute(
        "CREATE USER IF NOT EXISTS 'reader'@'localhost' IDENTIFIED BY 'read'; GRANT SELECT ON qsx.* TO "
        "'reader'@'localhost'; SET GLOBAL log_output = 'TABLE'; TRUNCATE mysql.general_log; "
        "SET GLOBAL general_log = 1");
    write_file(dsn_path, "[kolmo]\nusername = reader\npassword = read\n");
    for (const std::string &path : {responder_store, handlers_store}) {
        files.push_back({path, read_file(path), {}});
        ASSERT_EQ(::stat(path.c_str(), &files.back().status), 0);
    }
    ASSERT_EQ(::mount(folder, folder, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(::mount(nullptr, folder, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);

    const ProgramResult result = run();

    EXPECT_EQ(::umount2(folder, MNT_DETACH), 0);
    panel->execute("SET GLOBAL general_log = 0");
    EXPECT_EQ(result.status, 0) << result.err;
    for (const Before &file : files) {
        struct stat status;

        EXPECT_EQ(read_file(file.path), file.bytes);
        ASSERT_EQ(::stat(file.path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mtim.tv_sec, file.status.st_mtim.tv_sec);
        EXPECT_EQ(status.st_mtim.tv_nsec, file.status.st_mtim.tv_nsec);
        EXPECT_EQ(status.st_ctim.tv_nsec, file.status.st_ctim.tv_nsec);
        EXPECT_EQ(status.st_ino, file.status.st_ino);
    }
    EXPECT_EQ(panel->value("SELECT GROUP_CONCAT(DISTINCT SUBSTRING_INDEX(argument, ' ', 1) ORDER BY 1) FROM "
                           "mysql.general_log WHERE user_host LIKE 'reader%' AND command_type = 'Query'"),
              "COMMIT,SELECT,SET,START");
    EXPECT_FALSE(std::filesystem::exists(responder_store + "-journal"));
    panel->execute("DROP USER 'reader'@'localhost'");
}

/* The program on a terminal of its own. */
class Terminal
{
public:
    explicit Terminal(std::vector<std::string> arguments)
    {
        const winsize size = {50, 100, 0, 0};
        std::vector<char *> argv = {const_cast<char *>("mail_responders_verify")};

        for (std::string &text : arguments)
            argv.push_back(text.data());
        argv.push_back(nullptr);
        pid_ = ::forkpty(&terminal_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            kolmo::closefrom(STDERR_FILENO + 1);
            (void)::execv(KOLMO_VERIFY_PROGRAM, argv.data());
            ::_exit(127);
        }
    }
    ~Terminal()
    {
        (void)::close(terminal_);
        if (ended_)
            return;
        (void)::kill(pid_, SIGKILL);
        (void)::waitpid(pid_, nullptr, 0);
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }

    /* What it writes until these words come, its end, or silence for half a minute. */
    std::string read_until(const std::string &words)
    {
        pollfd ready = {terminal_, POLLIN, 0};
        std::string output;
        char byte;

        while (!output.ends_with(words) && ::poll(&ready, 1, 30000) == 1 && ::read(terminal_, &byte, 1) == 1)
            output += byte;
        return output;
    }

    /* The rest, and how it ended. */
    std::string finish(int *status = nullptr)
    {
        std::string output;
        char chunk[4096];
        ssize_t length;

        while ((length = ::read(terminal_, chunk, sizeof chunk)) > 0)
            output.append(chunk, static_cast<std::size_t>(length));
        ended_ = ::waitpid(pid_, status, 0) == pid_;
        return output;
    }

private:
    int terminal_ = -1;
    pid_t pid_ = -1;
    bool ended_ = false;
};

constexpr char progress_line[] = "\r1 of 1 mailboxes, about 0 s left\x1b[K";
constexpr char wiped_line[] = "\r\x1b[K";

/* A look that has lasted so long already that a line is due at its first mailbox. */
class ProgressTest : public ProgramTest
{
protected:
    std::unique_ptr<Terminal> start(const std::vector<std::string> &arguments)
    {
        StoreLock lock(StoreLock::Kind::exclusive);
        auto terminal = std::make_unique<Terminal>(arguments);

        wait_until([&] { return has_open(terminal->pid(), KOLMO_VERIFY_PROGRAM, responder_store); },
                   responder_store);
        std::this_thread::sleep_for(std::chrono::milliseconds(110));
        return terminal;
    }
};

TEST_F(ProgressTest, LineIsShownOnATerminalAndIsGoneBeforeAnythingElseIsSaid)
{
    struct Row {
        std::vector<std::string> arguments;
        bool shown;
    };
    const Row rows[] = {
        {{"--json"}, true},
        {{"-q", "--json"}, false},
        {{"-q", "--json", "--progress"}, true},
        {{"--json", "--no-progress"}, false},
    };

    change_store(responder_store, "UPDATE autoresponder SET subject = 'x'");
    for (const Row &row : rows) {
        const std::string output = start(row.arguments)->finish();
        const std::string line = row.shown ? std::string(progress_line) + wiped_line : "";
        const std::size_t finding = output.find("{\"code\"");

        ASSERT_NE(finding, std::string::npos) << output;
        EXPECT_TRUE(output.substr(0, finding).ends_with(line)) << output;
        EXPECT_EQ(output.find("mailboxes,") != std::string::npos, row.shown) << output;
    }
}

/* The last table that is read is locked: the look stands still with its line and its copies. */
TEST_F(ProgressTest, InterruptedItEndsByTheSignalAndLeavesNothing)
{
    const std::string folder = sandbox_variable("TMPDIR");
    int status = 0;

    change_store(responder_store, "CREATE TABLE filler AS SELECT zeroblob(3000000)"); /* more than a cache */
    panel->execute("LOCK TABLES ServiceNodeConfiguration WRITE");

    const std::unique_ptr<Terminal> terminal = start({});

    EXPECT_TRUE(terminal->read_until(progress_line).ends_with(progress_line));
    EXPECT_TRUE(has_open(terminal->pid(), KOLMO_VERIFY_PROGRAM, folder));
    EXPECT_EQ(::kill(terminal->pid(), SIGINT), 0);
    EXPECT_EQ(terminal->finish(&status), wiped_line);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
    EXPECT_EQ(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
    panel->execute("UNLOCK TABLES");
}

/* What is never the same: the time, and a progress line that may or may not have been due. */
std::string without_time(const std::string &text)
{
    return replaced(without_seconds(text), "\r[^\r\n]*\x1b\\[K|\r(?=\n)", "");
}

class GoldenTest : public VerifyTest
{
protected:
    /* A panel and stores with a fault of many kinds. */
    void SetUp() override
    {
        VerifyTest::SetUp();
        panel->execute(read_file(KOLMO_SOURCE_DIR "/demo/panel-data.sql"));
        ASSERT_EQ(rebuild().status, 0);
        panel->execute(sql_domain(9, "sub.harbour-books.example") + sql_answering(91, 9, "x y"));
        change_store(
            responder_store,
            "UPDATE autoresponder SET subject = 'x', body = replace(body, 'tide', 'weather') WHERE mn LIKE "
            "'info@harb%'; DELETE FROM attachments WHERE mn = 'info@books.example.com'; DELETE FROM "
            "extra_headers WHERE name = 'X-Priority'; INSERT INTO autoresponder (mn) VALUES "
            "('old@clinic.example.com')");
        change_store(handlers_store, "UPDATE handlers SET enabled = 0 WHERE address LIKE 'lektorat@%'; "
                                     "INSERT INTO handlers VALUES (2, "
                                     "1, 1, 90, 'autoresponder', 'old@clinic.example.com', '/x', 'c', 0)");
    }

    static void expect_golden(const std::string &name, const std::string &output)
    {
        const std::string path = std::string(KOLMO_SOURCE_DIR) + "/tests/verify/golden/" + name;

        if (std::getenv("KOLMO_WRITE_GOLDEN") != nullptr)
            write_file(path, output, 0644);
        EXPECT_EQ(output, read_file(path)) << "KOLMO_WRITE_GOLDEN=1 writes it anew";
    }
};

TEST_F(GoldenTest, TextOnATerminalIsColouredUnlessRefusedAndAtMostAHundredColumnsWide)
{
    expect_golden("text.txt", without_time(Terminal({}).finish()));
    expect_golden("plain.txt", without_time(Terminal({"--color", "never"}).finish()));
}

TEST_F(GoldenTest, TextElsewhereHasNoColoursUnlessAskedFor)
{
    expect_golden("plain.txt", run().out);
    expect_golden("text.txt", run({"--color", "always"}).out);
}

TEST_F(GoldenTest, JsonIsAnObjectALine)
{
    expect_golden("json.txt", without_time(run({"--json"}).out));
}

TEST_F(GoldenTest, QuietIsFindingsOnly)
{
    expect_golden("quiet.txt", run({"-q"}).out);
}

} // namespace

} // namespace kolmo
