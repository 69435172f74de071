/* Whole refreshes: what is published, what is not, why, and what stays as it was. */
#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <unistd.h>

#include "refresh/lock.h"
#include "tests/refresh/refresh_world.h"
#include "tests/support/killed_writer.h"
#include "tests/support/program_text.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait_until.h"

namespace kolmo
{

namespace
{

using namespace testing;
namespace fs = std::filesystem;

const std::string everything =
    "4 replies changed\n"; /* what SetUp has changed in the panel: three mailboxes, one alias */

/* What is to become of the live stores. */
enum class Live { untouched, fresh, other };

struct Situation {
    const char *what;
    std::function<void(PanelDatabase &panel)> prepare;
    std::vector<std::string> arguments;
    int status;
    const char *words; /* on one of the streams */
    Live live;
};

void without_reply(PanelDatabase &panel, int mailbox)
{
    panel.execute("UPDATE mail_resp SET resp_name = 'other' WHERE mn_id = " + std::to_string(mailbox));
}

void write_over_store(const std::string &path, const std::string &content)
{
    write_file(path, content, 0644);
}

const Situation situations[] = {
    {"nothing special", [](auto &) {}, {}, 0, "4 replies changed\n", Live::fresh},
    {"staged in a folder",
     [](auto &) { fs::create_directory("/run/stage"); },
     {"--stage", "/run/stage"},
     0,
     "4 replies changed\n",
     Live::fresh},
    {"dry run", [](auto &) {}, {"-n"}, 1, "would publish: 4 replies changed\n", Live::untouched},
    {"dry run with rows",
     [](auto &) {},
     {"--dry-run", "--rows"},
     1,
     "changed  reply       info@a.test\n",
     Live::untouched},
    {"dry run without anything to do",
     [](auto &panel) { panel.execute("UPDATE mail_resp SET subject = 'Away'"); },
     {"-n"},
     0,
     "nothing to do",
     Live::untouched},
    {"nothing to do",
     [](auto &panel) { panel.execute("UPDATE mail_resp SET subject = 'Away'"); },
     {},
     0,
     "nothing to do",
     Live::untouched},

    {"a rebuild that fails at the first domain",
     [](auto &panel) { without_reply(panel, 1); },
     {},
     1,
     "mail_responders_rebuild has failed with status 1; nothing is published",
     Live::untouched},
    {"at a middle one",
     [](auto &panel) { without_reply(panel, 2); },
     {},
     1,
     "nothing is published",
     Live::untouched},
    {"at the last one",
     [](auto &panel) { without_reply(panel, 3); },
     {},
     1,
     "nothing is published",
     Live::untouched},
    {"the same, published in part",
     [](auto &panel) { without_reply(panel, 3); },
     {"--partial"},
     1,
     "published in part: 3 replies changed\n",
     Live::other},
    {"the same when nothing differs",
     [](auto &panel) {
         panel.execute("UPDATE mail_resp SET subject = 'Away'");
         without_reply(panel, 3);
     },
     {"--partial"},
     1,
     "published in part: nothing\n",
     Live::untouched},
    {"the same, dry",
     [](auto &panel) {
         panel.execute("UPDATE mail_resp SET subject = 'Away'");
         without_reply(panel, 3);
     },
     {"--partial", "-n"},
     1,
     "would publish: nothing\n",
     Live::untouched},
    {"published in part, for programs, quietly",
     [](auto &panel) { without_reply(panel, 3); },
     {"--partial", "--json", "-q"},
     1,
     "{\"refresh\":{\"published\":true,\"reason\":\"published-in-part\"",
     Live::other},
    {"a utility that fails",
     [](auto &) { write_utility("echo sorry >&2; exit 3"); },
     {},
     1,
     "mail_responders_rebuild has failed with status 255; nothing is published",
     Live::untouched},
    {"a utility that makes garbage",
     [](auto &) { write_utility("echo garbage >" + responder_store); },
     {},
     1,
     "nothing is published",
     Live::untouched},
    {"a utility that fails, published in part",
     [](auto &) { write_utility("exit 3"); },
     {"--partial"},
     2,
     "the staged stores could not be judged; nothing is published",
     Live::untouched},
    {"a utility that fills the staging",
     [](auto &) {
         write_utility("exec dd if=/dev/zero of=${0%/*}/../../../../" + responder_store + " bs=1M");
     },
     {},
     1,
     "the staging is full: --stage DIR stages in a folder",
     Live::untouched},
    {"a rebuild that is killed",
     [](auto &) { (void)rebuild_script("kill -9 $$"); },
     {"--rebuild", script_path},
     1,
     "mail_responders_rebuild was ended by signal 9 (Killed); nothing is published",
     Live::untouched},
    {"a rebuild that does nothing",
     [](auto &) {},
     {"--rebuild", "/bin/true"},
     2,
     "the staged stores could not be judged",
     Live::untouched},
    {"no rebuild",
     [](auto &) {},
     {"--rebuild", "/nowhere"},
     2,
     "/nowhere cannot be executed: No such file or directory",
     Live::untouched},
    {"a rebuild that is no program",
     [](auto &) { write_file(script_path, "#!/nowhere\n", 0755); },
     {"--rebuild", script_path},
     2,
     "the rebuild cannot be executed: No such file or directory",
     Live::untouched},

    {"a responder store that is missing",
     [](auto &) { fs::remove(responder_store); },
     {},
     0,
     "the responder store's file replaced; 4 replies added\n",
     Live::fresh},
    {"garbage in its place",
     [](auto &) { write_over_store(responder_store, std::string(9000, 'x')); },
     {},
     0,
     "is no database: it is replaced whole",
     Live::fresh},
    {"another schema",
     [](auto &) { change_store(responder_store, "DROP TABLE attachments"); },
     {},
     0,
     "has other tables than a rebuild makes: it is replaced whole",
     Live::fresh},
    {"another index only, dry",
     [](auto &panel) {
         panel.execute("UPDATE mail_resp SET subject = 'Away'");
         change_store(responder_store, "CREATE INDEX other ON attachments (filename)");
     },
     {"-n"},
     1,
     "would publish: the responder store's file replaced\n",
     Live::untouched},
    {"a missing one, published in part",
     [](auto &panel) {
         without_reply(panel, 3);
         fs::remove(responder_store);
     },
     {"--partial"},
     1,
     "published in part: the responder store's file replaced; 3 replies added\n",
     Live::other},
    {"garbage in its place, dry",
     [](auto &) { write_over_store(responder_store, "garbage"); },
     {"-n"},
     1,
     "would publish: the responder store's file replaced; 4 replies added\n",
     Live::untouched},
    {"a hot journal",
     [](auto &) { kill_writer(responder_store, "UPDATE autoresponder SET body = 'x'"); },
     {},
     0,
     "what it left was tidied up",
     Live::fresh},
    {"a handlers store of another owner",
     [](auto &) { EXPECT_EQ(::chown(handlers_store.c_str(), 1, 1), 0); },
     {},
     0,
     "4 replies changed\n",
     Live::fresh},
    {"a responder store that the mail server cannot read",
     [](auto &) { EXPECT_EQ(::chmod(responder_store.c_str(), 0600), 0); },
     {},
     0,
     "responder.db cannot be read by the mail server's group",
     Live::fresh},
    {"no handlers store",
     [](auto &) { fs::remove(handlers_store); },
     {},
     2,
     "handlers.db cannot be read: No such file or directory",
     Live::untouched},
    {"a handlers store that is garbage",
     [](auto &) { write_over_store(handlers_store, std::string(9000, 'x')); },
     {},
     2,
     "handlers.db is no database",
     Live::untouched},
    {"WAL mode",
     [](auto &) { change_store(responder_store, "PRAGMA journal_mode = WAL"); },
     {},
     2,
     "is in WAL mode",
     Live::untouched},
    {"no folder for the responder store",
     [](auto &) { fs::remove_all(fs::path(responder_store).parent_path()); },
     {},
     2,
     "the folder /var/lib/kolmo/mail/autoresponder is missing",
     Live::other},

    {"a panel that cannot be reached",
     [](auto &) { write_file(shadow_path, "wrong\n"); },
     {},
     2,
     "Unable to connect to Kolmo Database: Access denied",
     Live::untouched},
    {"a DSN file that is none",
     [](auto &) { fs::create_directory(dsn_path); },
     {},
     2,
     "dsn.ini is there, but is no file",
     Live::untouched},
    {"a table of the panel that is missing",
     [](auto &panel) { panel.execute("DROP TABLE mail"); },
     {},
     1,
     "nothing is published",
     Live::untouched},
    {"a limit of the panel",
     [](auto &panel) {
         panel.execute("INSERT INTO resp_forward SELECT id, 'x@x.test' FROM mail_resp WHERE mn_id = 1; "
                       "INSERT INTO resp_forward SELECT id, 'y@x.test' FROM mail_resp WHERE mn_id = 1");
     },
     {},
     0,
     "several-forwards          info@a.test\n",
     Live::fresh},
    {"a stale handler",
     [](auto &) {
         change_store(handlers_store, "INSERT INTO handlers VALUES (" + handler_row("old@a.test") + ")");
     },
     {},
     0,
     "handlers.db \"DELETE FROM handlers WHERE",
     Live::fresh},
    {"a stale handler that is pruned",
     [](auto &) {
         change_store(handlers_store, "INSERT INTO handlers VALUES (" + handler_row("old@a.test") + ")");
     },
     {"--prune"},
     0,
     "4 replies changed; 1 handler removed\n",
     Live::fresh},
    {"a stale handler whose address is a blob, with the bytes of a wanted one",
     [](auto &) {
         change_store(
             handlers_store,
             "INSERT INTO handlers SELECT queue, type, enabled, priority, name, CAST(address AS BLOB), "
             "executable, context, protected FROM handlers WHERE address = 'info@a.test'");
     },
     {"--prune"},
     0,
     "handler-stale",
     Live::fresh},
    {"stale handlers of no queue there is, which are pruned",
     [](auto &) {
         change_store(
             handlers_store,
             "INSERT INTO handlers SELECT 'abc', type, enabled, priority, name, address, executable, "
             "context, protected FROM handlers WHERE address = 'info@a.test'; "
             "INSERT INTO handlers SELECT 2.5, type, enabled, priority, name, address, executable, "
             "context, protected FROM handlers WHERE address = 'info@b.test'");
     },
     {"--prune"},
     0,
     "4 replies changed; 2 handlers removed\n",
     Live::fresh},
    {"a stale handler that the next rebuild would make again",
     [](auto &panel) { (void)panel.add_mailbox_with_responder(1, "x y"); },
     {"--prune"},
     0,
     "(because of blank-in-name)",
     Live::fresh},
    {"no folder to stage in",
     [](auto &) {},
     {"--stage", "/nowhere"},
     2,
     "/nowhere cannot be staged in: No such file or directory",
     Live::untouched},
    {"a folder of somebody else's to stage in",
     [](auto &) {
         fs::create_directories("/run/theirs/stage");
         EXPECT_EQ(::chown("/run/theirs", 1, 1), 0);
     },
     {"--stage", "/run/theirs/stage"},
     2,
     "others than root can put something else in its place, as /run/theirs is theirs",
     Live::untouched},
    {"a folder to stage in that anybody may write to",
     [](auto &) {
         fs::create_directory("/run/anybodys");
         EXPECT_EQ(::chmod("/run/anybodys", 0777), 0);
     },
     {"--stage", "/run/anybodys"},
     2,
     "as /run/anybodys is theirs, or writable for them",
     Live::untouched},
    {"a folder to stage in like that for temporary files",
     [](auto &) {
         fs::create_directory("/run/stage");
         EXPECT_EQ(::chmod("/run/stage", 01777), 0);
     },
     {"--stage", "/run/stage"},
     0,
     "",
     Live::fresh},
    {"a folder to stage in whose name the lock's file cannot keep",
     [](auto &) { fs::create_directory("/run/sta\nge"); },
     {"--stage", "/run/sta\nge"},
     2,
     "cannot be staged in: Invalid argument",
     Live::untouched},
    {"not as a refresh would be asked", [](auto &) {}, {"--nonsense"}, 2, "Usage:", Live::untouched},
};

class ProgramTest : public RefreshTest
{
protected:
    /* What the prepared situation comes to. */
    ProgramResult expect_outcome(const std::vector<std::string> &arguments, int status,
                                 const std::string &words, Live live)
    {
        const FileState responders(responder_store);
        const FileState handlers(handlers_store);
        const ProgramResult result = refresh(arguments);

        EXPECT_EQ(result.status, status) << result.err << result.out;
        EXPECT_NE(unwrapped(result.out + result.err).find(words), std::string::npos)
            << result.err << result.out;
        if (live == Live::untouched) {
            expect_untouched(responders);
            expect_untouched(handlers);
        }
        EXPECT_EQ(what_is_left(), Lines{});
        if (live == Live::fresh)
            expect_fresh();
        return result;
    }
};

TEST_F(ProgramTest, OutputThatIsLostIsTrouble)
{
    ProgramOptions options;

    options.argv = {"sh", "-c", "exec " KOLMO_REFRESH_PROGRAM " --help >/dev/full"};

    const ProgramResult result = Program("/bin/sh", options).finish();

    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "mail_responders_refresh: standard output cannot be written\n");
}

TEST_F(ProgramTest, EachSituationComesToWhatItShould)
{
    for (const Situation &situation : situations) {
        SCOPED_TRACE(situation.what);
        SetUp();
        situation.prepare(*panel);
        expect_outcome(situation.arguments, situation.status, situation.words, situation.live);
    }
}

TEST_F(ProgramTest, RowsOfOthersStayAndOwnersAndModesToo)
{
    const std::string foreign = add_foreign_handler("info@a.test");
    const FileState responders(responder_store);
    const FileState handlers(handlers_store);

    ASSERT_EQ(refresh().status, 0);
    EXPECT_EQ(query_store(handlers_store, "SELECT count(*) FROM handlers WHERE name = 'antivirus'"),
              Lines{"2"}); /* and the alias's */
    for (const FileState *before : {&responders, &handlers}) {
        const FileState now(before->path);

        EXPECT_EQ(now.status.st_ino, before->status.st_ino);
        EXPECT_EQ(now.status.st_mode, before->status.st_mode);
        EXPECT_EQ(now.status.st_gid, before->status.st_gid);
    }
}

TEST_F(ProgramTest, StoreThatIsReplacedHasOwnerAndModeAsTheUtilityGaveThem)
{
    write_utility(stand_in + " && chown 12:34 " + responder_store + " && chmod 0604 " + responder_store);
    fs::remove(responder_store);
    ASSERT_EQ(refresh().status, 0);

    const FileState now(responder_store);

    EXPECT_EQ(now.status.st_uid, 12U);
    EXPECT_EQ(now.status.st_gid, 34U);
    EXPECT_EQ(now.status.st_mode & 07777U, 0604U);
}

TEST_F(ProgramTest, FoldersOfTheStagingAreAsTheLiveOnes)
{
    const std::string folder = fs::path(responder_store).parent_path();

    ASSERT_EQ(::chown(folder.c_str(), 12, 34), 0);
    ASSERT_EQ(::chmod(folder.c_str(), 02751), 0);
    write_utility("stat -c '%u %g %a' " + folder + " >/run/seen; stat -c '%u %g %a' " + handlers_store +
                  " >>/run/seen; " + stand_in);
    EXPECT_EQ(refresh().status, 0);
    EXPECT_EQ(read_file("/run/seen"),
              "12 34 2751\n0 " + std::to_string(::getgrnam("popuser")->gr_gid) + " 640\n");
}

TEST_F(ProgramTest, ReadOnlyStoresAreTrouble)
{
    const std::string folder = "/var/lib/kolmo/mail";

    ASSERT_EQ(::mount(folder.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(::mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    expect_outcome({}, 2, "handlers.db cannot be written: the file or its file system is read-only",
                   Live::untouched);
    EXPECT_EQ(::umount2(folder.c_str(), MNT_DETACH), 0);
}

struct FailingCall {
    const char *call;
    const char *fault; /* which time in each process */
    const char *words;
};

/* The refresh makes one mount with a folder to stage in; the third is the keeper's own.  First it notes its
   own process, then the folder. */
const FailingCall failing_calls[] = {
    {"clone3", "error=EAGAIN:when=1",
     "no process namespace for the rebuild can be had: Resource temporarily"},
    {"prctl", "error=EPERM:when=1",
     "the rebuild's keeper cannot be bound to this process's end: Operation not permitted"},
    {"pwrite64", "error=ENOSPC:when=2", "cannot be made: No space left on device"},
    {"openat", "error=EMFILE:when=1", "the staging folders cannot be opened: Too many open files"},
    {"mount", "error=EPERM:when=2",
     "the staging cannot be laid over the live stores: Operation not permitted"},
    {"mount", "error=EPERM:when=3", "the rebuild's own /proc cannot be mounted: Operation not permitted"},
};

TEST_F(ProgramTest, RebuildThatCannotBeBegunIsTroubleAndNothingIsTouched)
{
    fs::create_directory("/run/stage");

    const FileState responders(responder_store);
    const FileState handlers(handlers_store);

    for (const FailingCall &row : failing_calls) {
        SCOPED_TRACE(row.words);

        const ProgramResult result =
            start_traced({"-f", "-o", "/dev/null", "-e", std::string("trace=") + row.call, "-e",
                          std::string("inject=") + row.call + ':' + row.fault},
                         {"--stage", "/run/stage"})
                ->finish();

        EXPECT_EQ(result.status, 2);
        EXPECT_NE(unwrapped(result.err).find(row.words), std::string::npos) << result.err;
        expect_untouched(responders);
        expect_untouched(handlers);
        EXPECT_EQ(what_is_left(), Lines{});
    }
}

/* The new file has its name then, and the handlers' journal cannot be synced. */
TEST_F(ProgramTest, HandlersThatAreNotPublishedAreNotSaidToBe)
{
    (void)panel->add_mailbox_with_responder(2, "new");
    fs::remove(responder_store);

    const Lines handlers = handler_rows();
    const ProgramResult result =
        start_traced({"-o", "/dev/null", "-e", "trace=fdatasync", "-e", "inject=fdatasync:error=EIO:when=1"},
                     {"--rows"})
            ->finish();

    EXPECT_EQ(result.status, 1);
    EXPECT_NE(unwrapped(result.err).find("what was written cannot be committed, and has been undone"),
              std::string::npos)
        << result.err;
    EXPECT_NE(result.out.find("published in part: the responder store's file replaced; 5 replies added\n"),
              std::string::npos)
        << result.out;
    EXPECT_EQ(result.out.find("handler"), std::string::npos) << result.out;
    EXPECT_EQ(handler_rows(), handlers);
    EXPECT_EQ(refresh().out, "1 handler added\n");
}

/* SQLite keeps journal and list beside the file itself. */
TEST_F(ProgramTest, StoreThatIsReachedByALinkIsLookedAtWhereItIs)
{
    const std::string real = "/run/elsewhere/real.db";
    const std::pair<std::string, const char *> writers[] = {
        {responder_store, "UPDATE autoresponder SET body = 'x'"},
        {handlers_store, "UPDATE handlers SET context = 'x'"},
    };

    fs::create_directory("/run/elsewhere");
    for (const auto &[store, sql] : writers) {
        SCOPED_TRACE(store);
        fs::copy_file(store, real);
        fs::remove(store);
        fs::create_symlink(real, store);
        kill_writer(real, sql);

        const FileState journal(real + "-journal");
        const FileState before(real);

        EXPECT_EQ(refresh({"-n"}).status, 2);
        expect_untouched(journal);
        expect_untouched(before);
        write_file(real + "-mj012345978", "left", 0600);
        EXPECT_EQ(refresh().status, 0);
        EXPECT_FALSE(fs::exists(real + "-journal"));
        EXPECT_EQ(fs::exists(real + "-mj012345978"), store != handlers_store);
        fs::remove(store);
        fs::copy_file(real, store);
        fs::remove(real);
    }
    fs::remove_all("/run/elsewhere");
}

/* Nothing can be rolled back from it: the store is replaced whole. */
TEST_F(ProgramTest, JournalOfAStoreThatIsMissingOrEmptyIsNotHot)
{
    const std::pair<const char *, std::function<void()>> losses[] = {
        {"missing",
         [] {
             fs::remove(responder_store);
         }},
        {"empty",
         [] {
             fs::resize_file(responder_store, 0);
         }},
    };

    for (const auto &[what, lose] : losses) {
        SCOPED_TRACE(what);
        SetUp();
        kill_writer(responder_store, "UPDATE autoresponder SET body = 'x'");
        lose();

        const FileState journal(responder_store + "-journal");
        const FileState before(responder_store);
        const ProgramResult result = refresh({"-n"});

        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_EQ(result.out, "would publish: the responder store's file replaced; 4 replies added\n");
        expect_untouched(journal);
        expect_untouched(before);
        EXPECT_EQ(refresh().status, 0);
        expect_fresh();
    }
}

TEST_F(ProgramTest, WhatAKilledWriterHasLeftIsNoAffairOfADryRun)
{
    const std::pair<std::string, const char *> writers[] = {
        {responder_store, "UPDATE autoresponder SET body = 'x'"},
        {handlers_store, "UPDATE handlers SET context = 'x'"},
    };
    const std::string leftovers[] = {responder_store + "-refresh", handlers_store + "-mj012345978"};

    for (const auto &[store, sql] : writers) {
        kill_writer(store, sql);

        const FileState journal(store + "-journal");
        const FileState before(store);

        const ProgramResult result = refresh({"-n"});

        EXPECT_EQ(result.status, 2);
        EXPECT_NE(unwrapped(result.err).find(store + " has a hot journal, which a dry run does not touch"),
                  std::string::npos)
            << result.err;
        expect_untouched(journal);
        expect_untouched(before);
        EXPECT_EQ(refresh().status, 0);
    }
    for (const std::string &leftover : leftovers)
        write_file(leftover, "left", 0600);
    EXPECT_EQ(refresh({"-n"}).status, 0);
    for (const std::string &leftover : leftovers)
        EXPECT_TRUE(fs::exists(leftover)) << leftover;
    EXPECT_EQ(refresh().status, 0);
    for (const std::string &leftover : leftovers)
        EXPECT_FALSE(fs::exists(leftover)) << leftover;
}

TEST_F(ProgramTest, SecondRefreshEndsWithTroubleWhenItsTimeIsOver)
{
    const Fd lock(::open(run_lock_path, O_RDWR | O_CREAT | O_CLOEXEC, 0600));

    ASSERT_EQ(::write(lock.get(), "4711\n\n", 6), 6);
    ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
    expect_outcome({"--wait", "0"}, 2, "another refresh is at work (process 4711)", Live::untouched);
    ASSERT_EQ(::flock(lock.get(), LOCK_UN), 0);
}

/* It has found the lock taken twice before it gets it. */
TEST_F(ProgramTest, SecondRefreshWaitsForTheFirst)
{
    const Fd lock(::open(run_lock_path, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    const std::string trace = "/run/trace";

    write_file(trace, "");
    ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);

    const std::unique_ptr<Program> program = start_traced({"-o", trace, "-e", "trace=flock"});

    wait_until(
        [&] {
            const std::string calls = read_file(trace);

            return calls.find("EAGAIN") != calls.rfind("EAGAIN");
        },
        "the second try");
    EXPECT_TRUE(program->is_running());
    ASSERT_EQ(::flock(lock.get(), LOCK_UN), 0);
    EXPECT_EQ(program->finish().status, 0);
    fs::remove(trace);
}

TEST_F(ProgramTest, LockFileThatIsNotOursIsTrouble)
{
    fs::create_symlink("/run/elsewhere", run_lock_path);
    EXPECT_EQ(
        unwrapped(expect_outcome({}, 2, "", Live::untouched).err),
        "mail_responders_refresh: /run/mail_responders_refresh.lock cannot be opened: Too many levels of "
        "symbolic links\n");
    EXPECT_FALSE(fs::exists("/run/elsewhere"));
    fs::remove(run_lock_path);
    ASSERT_EQ(::mkfifo(run_lock_path, 0600), 0);
    expect_outcome({}, 2, "is not this program's lock file", Live::untouched);
    fs::remove(run_lock_path);
}

TEST_F(ProgramTest, LockedStoresAreTroubleWhenTheTimeIsOver)
{
    StoreLock lock(StoreLock::Kind::exclusive);
    const ProgramResult result = refresh({"--wait", "0"});

    EXPECT_EQ(result.status, 2);
    EXPECT_NE(unwrapped(result.err).find("is locked by another process"), std::string::npos) << result.err;
}

TEST_F(ProgramTest, WithoutTheCapabilityForMountsThePlainRebuildIsNamed)
{
    ProgramOptions options;

    options.argv = {"setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin", KOLMO_REFRESH_PROGRAM};

    const FileState responders(responder_store);
    const ProgramResult result = Program("/usr/bin/setpriv", options).finish();

    EXPECT_EQ(result.status, 2);
    EXPECT_NE(unwrapped(result.err).find("there is only mail_responders_rebuild"), std::string::npos)
        << result.err;
    expect_untouched(responders);
}

TEST_F(ProgramTest, WithoutMemoryForTheStagingAFolderIsNamed)
{
    write_file("/run/meminfo", "MemTotal: 9 kB\nMemAvailable:       4096 kB\n", 0444);
    ASSERT_EQ(::mount("/run/meminfo", "/proc/meminfo", nullptr, MS_BIND, nullptr), 0);
    expect_outcome({}, 2, "are needed, 4 MiB are available; --stage DIR stages in a folder", Live::untouched);
    EXPECT_EQ(::umount("/proc/meminfo"), 0);
}

TEST_F(ProgramTest, WithoutRoomInTheFolderForTheStagingItSaysSo)
{
    fs::create_directory("/run/stage");
    ASSERT_EQ(::mount("tmpfs", "/run/stage", "tmpfs", 0, "size=1m"), 0);
    expect_outcome({"--stage", "/run/stage"}, 2, "/run/stage has no room for the staging", Live::untouched);
    EXPECT_EQ(::umount("/run/stage"), 0);
}

TEST_F(ProgramTest, StoreThatSomebodyChangedMeanwhileIsTriedOnceMore)
{
    const Service service("test -e /run/once || sqlite3 " + responder_store +
                          " \"UPDATE autoresponder SET body = 'x'\"; touch /run/once");

    write_utility(stand_in + "; " + Service::ask);

    const ProgramResult result =
        expect_outcome({}, 0, "responder.db was changed meanwhile: once more", Live::fresh);

    EXPECT_EQ(result.out, "4 replies changed\n"); /* by the second try, not by both */
}

TEST_F(ProgramTest, StoreThatSomebodyChangesAllTheTimeIsNotOverwritten)
{
    const Service service("sqlite3 " + responder_store + " \"UPDATE autoresponder SET body = body || 'x'\"");

    write_utility(stand_in + "; " + Service::ask);

    const ProgramResult result = refresh();

    EXPECT_EQ(result.status, 1);
    EXPECT_NE(unwrapped(result.err)
                  .find("mail_responders_refresh: /var/lib/kolmo/mail/autoresponder/"
                        "responder.db was changed meanwhile\n"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(query_store(responder_store, "SELECT DISTINCT subject, body FROM autoresponder"),
              Lines{"Away,Back soon.xx"});
}

TEST_F(ProgramTest, UtilityThatWorksThroughAServiceIsNamed)
{
    const Service service(stand_in);

    write_utility(Service::ask);

    const ProgramResult result = refresh();

    EXPECT_EQ(result.status, 1);
    EXPECT_NE(unwrapped(result.err).find("it seems to work through a service that does not see the staging"),
              std::string::npos)
        << result.err;
}

/* The panel as it is after the rebuild, and before the look. */
std::string changes_panel(const std::string &sql)
{
    return "MYSQL_PWD=" + sandbox_variable("KOLMO_SANDBOX_PASSWORD") +
           " mariadb --no-defaults --socket=" + server_socket + " --user=admin qsx --execute=\"" + sql + "\"";
}

TEST_F(ProgramTest, PanelThatChangedMeanwhileIsTriedOnceMore)
{
    const std::string script =
        rebuild_script("\"$rebuild\" || exit\ntest -e /run/once || " +
                       changes_panel("UPDATE mail_resp SET subject = 'Newer'") + "\n: >/run/once");

    expect_outcome({"--rebuild", script}, 0, "it may have changed meanwhile: once more", Live::fresh);
}

TEST_F(ProgramTest, RebuildThatLeavesFindingsIsNotPublishedButInPart)
{
    const std::string script = rebuild_script("\"$rebuild\" || exit\nsqlite3 " + responder_store +
                                              " \"DELETE FROM autoresponder WHERE mn = 'info@b.test'\"");

    expect_outcome({"--rebuild", script}, 1, "the staged stores are not what the panel says, again",
                   Live::untouched);
    expect_outcome({"--rebuild", script, "--partial"}, 1, "published in part: 3 replies changed, 1 removed\n",
                   Live::other);
}

TEST_F(ProgramTest, RebuildThatFailedRemovesNothing)
{
    without_reply(*panel, 2);
    change_store(handlers_store, "INSERT INTO handlers VALUES (" + handler_row("old@a.test") + ")");
    for (const auto &arguments : {std::vector<std::string>{"--partial"}, {"--partial", "--prune"}}) {
        expect_outcome(arguments, 1, "published in part: ", Live::other);
        EXPECT_EQ(query_store(responder_store, "SELECT count(*) FROM autoresponder"), Lines{"4"});
        EXPECT_EQ(query_store(handlers_store, "SELECT count(*) FROM handlers WHERE address = 'old@a.test'"),
                  Lines{"1"});
    }
}

TEST_F(ProgramTest, RebuildThatFailedIsNotTriedAgain)
{
    const std::string script =
        rebuild_script("echo run >>/run/runs; \"$rebuild\"\nsqlite3 " + responder_store +
                       " \"DELETE FROM autoresponder WHERE mn = 'info@b.test'\"\nexit 1");
    const ProgramResult result = refresh({"--rebuild", script, "--partial"});

    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find("reply-missing"), std::string::npos) << result.out;
    EXPECT_EQ(unwrapped(result.err).find("once more"), std::string::npos) << result.err;
    EXPECT_EQ(read_file("/run/runs"), "run\n");
    fs::remove("/run/runs");
}

/* Killed in the middle of a commit, with pages in the store that it takes back. */
TEST_F(ProgramTest, WhatARebuildHadNotCommittedIsNotPublishedInPart)
{
    const std::string script = rebuild_script(
        "\"$rebuild\"\nsqlite3 " + responder_store +
        " 'PRAGMA cache_size = 1' BEGIN \"UPDATE autoresponder SET body = 'x'\" 'CREATE TABLE lost AS WITH "
        "RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 200) SELECT zeroblob(2000) FROM "
        "n' "
        "'.shell kill -9 $PPID'\ntest -s " +
        responder_store + "-journal || exit 0\nkill -9 $$");

    expect_outcome({"--rebuild", script, "--partial"}, 1, "published in part: 4 replies changed\n",
                   Live::fresh);
}

/* What the rebuild says goes where it would go without the refresh, and its number is the refresh's. */
TEST_F(ProgramTest, RebuildSpeaksForItself)
{
    without_reply(*panel, 1);

    const std::unique_ptr<Program> program = start();
    const std::string head = "mail_responders_rebuild[" + std::to_string(program->pid()) + "]: ";
    const ProgramResult result = program->finish();

    EXPECT_EQ(result.err.find(head + "Unable to restore autoresponder for 'info@a.test'"), 0U) << result.err;
}

TEST_F(ProgramTest, RebuildBesideTheProgramIsTakenBeforeTheInstalledOne)
{
    fs::create_directory("/run/beside");
    fs::copy_file(KOLMO_REFRESH_PROGRAM, "/run/beside/mail_responders_refresh");
    write_file("/run/beside/mail_responders_rebuild", "#!/bin/sh\nexit 77\n", 0755);

    ProgramOptions options;

    options.argv = {"mail_responders_refresh"};

    const ProgramResult result = Program("/run/beside/mail_responders_refresh", options).finish();

    fs::remove_all("/run/beside");
    EXPECT_NE(result.err.find("has failed with status 77"), std::string::npos) << result.err;
}

TEST_F(ProgramTest, InstalledRebuildIsTakenWhenNoneIsBesideTheProgram)
{
    const std::string installed = KOLMO_SBIN_DIR "/mail_responders_rebuild";
    ProgramOptions options;

    options.argv = {"mail_responders_refresh"};
    fs::create_directory("/run/alone");
    fs::copy_file(KOLMO_REFRESH_PROGRAM, "/run/alone/mail_responders_refresh");
    ASSERT_EQ(::mount("tmpfs", KOLMO_SBIN_DIR, "tmpfs", 0, ""), 0);
    write_file(installed, "#!/bin/sh\nexit 78\n", 0755);

    const ProgramResult with = Program("/run/alone/mail_responders_refresh", options).finish();

    fs::remove(installed);

    const ProgramResult without = Program("/run/alone/mail_responders_refresh", options).finish();

    EXPECT_EQ(::umount(KOLMO_SBIN_DIR), 0);
    fs::remove_all("/run/alone");
    EXPECT_NE(with.err.find("has failed with status 78"), std::string::npos) << with.err;
    EXPECT_EQ(without.status, 2);
    EXPECT_NE(
        unwrapped(without.err).find("there is no /run/alone/mail_responders_rebuild and no " + installed),
        std::string::npos)
        << without.err;
}

/* A shell would tell its own mask. */
TEST_F(ProgramTest, NoSignalIsHeldBackFromTheRebuild)
{
    const auto blocked = [](const std::string &path) {
        std::ifstream file(path);
        std::string line;

        while (std::getline(file, line) && !line.starts_with("SigBlk:"))
            ;
        return line;
    };

    write_file(
        script_path,
        "#!/usr/bin/perl\nopen(my $status, '<', '/proc/self/status'); open(my $copy, '>', '/run/status');\n"
        "print {$copy} <$status>; close($copy); exec('" KOLMO_PROGRAM "');\n",
        0755);
    EXPECT_EQ(refresh({"--rebuild", script_path}).status, 0);
    EXPECT_EQ(blocked("/run/status"), blocked("/proc/self/status"));
    fs::remove("/run/status");
}

/* The rebuild does not end before it was shown how far it is. */
TEST_F(ProgramTest, ProgressOfTheRebuildIsShownUntilItsEnd)
{
    ProgramOptions options;

    (void)rebuild_script("\"$rebuild\"; until grep -q 'rebuild: ' /run/shown; do sleep 0.01; done; exit 3");
    options.argv = {"sh", "-c",
                    "exec " KOLMO_REFRESH_PROGRAM " --progress --rebuild " + script_path + " 2>/run/shown"};
    EXPECT_EQ(Program("/bin/sh", options).finish().status, 1);

    const std::string shown = read_file("/run/shown");

    EXPECT_EQ(shown.rfind("\r\x1b[Kmail_responders_refresh: "), shown.rfind('\r')) << shown;

    (void)rebuild_script(
        "\"$rebuild\"; until grep -q 'rebuild: ' /run/shown; do sleep 0.01; done; : >/run/once; "
        "sleep 1000");

    Program program("/bin/sh", options);

    wait_for_file("/run/once");
    EXPECT_EQ(::kill(program.pid(), SIGTERM), 0);
    EXPECT_EQ(program.finish().status, 1000 + SIGTERM);
    EXPECT_TRUE(read_file("/run/shown").ends_with("\r\x1b[K"));
    fs::remove("/run/shown");
}

/* What a process left that the rebuild has started ends with the rebuild. */
TEST_F(ProgramTest, NothingThatTheRebuildStartedOutlivesIt)
{
    fs::copy_file("/bin/sleep", "/run/left-behind");
    write_utility("/run/left-behind 1000 </dev/null >/dev/null 2>&1 & " + stand_in);
    EXPECT_EQ(refresh().status, 0);
    EXPECT_NE(std::system("grep -sq 'left-behin[d]' /proc/[0-9]*/cmdline"), 0);
    fs::remove("/run/left-behind");
}

std::string without_chance(const std::string &text)
{
    return replaced(without_seconds(text), "mail_responders_refresh-staging\\.[0-9a-f]{16}",
                    "mail_responders_refresh-staging.0123456789abcdef");
}

TEST_F(ProgramTest, JsonIsAnObjectALine)
{
    const std::string path = KOLMO_SOURCE_DIR "/tests/refresh/golden/json.txt";

    panel->add_attachment(1, "map\x7f.pdf");
    panel->set_reply_headers(R"({"X-A": "1"})");
    panel->execute("DELETE FROM mail WHERE id = 3");
    change_store(handlers_store, "INSERT INTO handlers VALUES (" + handler_row("old@a.test") + ")");

    const std::string output = without_chance(refresh({"--json", "--rows"}).out);

    if (std::getenv("KOLMO_WRITE_GOLDEN") != nullptr)
        write_file(path, output, 0644);
    EXPECT_EQ(output, read_file(path)) << "KOLMO_WRITE_GOLDEN=1 writes it anew";
}

/* The rebuild repeats on standard output what it says on standard error. */
TEST_F(ProgramTest, NothingButJsonGoesToStandardOutput)
{
    write_utility("echo sorry >&2; exit 3");

    const ProgramResult result = refresh({"--json"});

    EXPECT_EQ(without_chance(result.out),
              "{\"trouble\":\"mail_responders_rebuild has failed with status 255; nothing is published\"}\n"
              "{\"refresh\":{\"published\":false,\"reason\":\"rebuild-failed\",\"added\":0,\"changed\":0,"
              "\"removed\":0,\"replaced\":false,\"seconds\":0}}\n");
    EXPECT_NE(result.err.find("mail_responders_control execution failed:"), std::string::npos) << result.err;
}

TEST_F(ProgramTest, QuietIsSilentWhenAllIsWell)
{
    const ProgramResult result = refresh({"-q"});

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
}

TEST_F(ProgramTest, HelpAndVersionGoToStandardOutput)
{
    EXPECT_EQ(refresh({"-V"}).out, "mail_responders_refresh " KOLMO_VERSION "\n");
    EXPECT_NE(refresh({"-h"}).out.find("--stage DIR"), std::string::npos);
}

/* A mail server that asks for every mailbox again and again is answered every time. */
TEST_F(ProgramTest, NobodyWhoAsksMeanwhileMeetsASilentMailbox)
{
    std::atomic<bool> is_over = false;
    int rounds = 0;
    int silent = 0;
    std::thread reader([&] {
        while (!is_over || rounds == 0) {
            const Lines rows = query_store(responder_store, "PRAGMA busy_timeout = 10000; SELECT mn FROM "
                                                            "autoresponder WHERE subject IN ('Away', 'New')");

            silent += rows.size() == 5 ? 0 : 1; /* the time-out's row, and four replies */
            rounds++;
        }
    });
    const int status = refresh().status;

    is_over = true;
    reader.join();
    EXPECT_EQ(status, 0);
    EXPECT_GT(rounds, 0);
    EXPECT_EQ(silent, 0);
    expect_fresh();
}

} // namespace

} // namespace kolmo
