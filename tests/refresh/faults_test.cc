/* Whatever fails, and whenever it is killed: the live stores are the old ones or the new ones. */
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/refresh/publisher_world.h"
#include "tests/refresh/write_faults.h"
#include "tests/support/sqlite_faults.h"

namespace kolmo
{

namespace
{

using namespace testing;

/* The rows of both live stores; a responder store that is missing or no database has none. */
struct Stores {
    Lines responder;
    Lines handlers;

    bool operator==(const Stores &) const = default;
};

/* A world in which each kind of change is to be published in each table. */
class FaultWorld : public PublisherWorld
{
public:
    explicit FaultWorld(bool replaces)
    {
        (void)run(paths.live_responder, sql_reply("gone@x.test", "G") + sql_reply("other@x.test", "O") +
                                            sql_attachment("gone@x.test", "1.pdf") + sql_header("X-A", "1"));
        (void)run(paths.staged_responder, sql_reply("new@x.test", "N") + sql_reply("other@x.test", "P") +
                                              sql_attachment("new@x.test", "1.pdf") + sql_header("X-A", "2"));
        (void)run(paths.live_handlers, sql_handler("gone@x.test") + sql_handler("old@x.test", 1));
        if (replaces)
            (void)run(paths.live_responder, "PRAGMA user_version = 7");
    }

    /* Everything but the last step; -1 when a step fails. */
    int get_ready(Publisher *publisher, const std::function<void()> &before_compare = {}) const
    {
        PublishOptions options;
        ChangeCounts counts;

        options.prune = {{"2", "1", "gone@x.test"}};
        if (publisher->open_live() != 0 || publisher->copy_handlers() != 0)
            return -1;
        if (before_compare)
            before_compare();
        return publisher->compare(options, {}, &counts);
    }

    void rebuild() const
    {
        (void)run(paths.staged_handlers, sql_handler("new@x.test") + sql_handler("old@x.test"));
    }

    /* What somebody who opens the stores sees, whoever comes first after a kill. */
    Stores stores(bool is_publisher_first) const
    {
        Published published;

        if (is_publisher_first) {
            EXPECT_EQ(publisher(&published)->open_live(), 0);
            EXPECT_EQ(published.troubles, Lines{});
        } else {
            (void)run(paths.live_responder, "SELECT count(*) FROM autoresponder");
            (void)run(paths.live_handlers, "SELECT count(*) FROM handlers");
        }
        return {rows(paths.live_responder), rows(paths.live_handlers)};
    }

    /* A publishing that is not disturbed. */
    PublishResult publish_again() const
    {
        Published published;
        const std::unique_ptr<Publisher> again = publisher(&published);

        if (get_ready(again.get(), [&] { rebuild(); }) != 0)
            return PublishResult::failed;
        return again->publish();
    }
};

Stores published_stores(bool replaces)
{
    const FaultWorld world(replaces);

    EXPECT_EQ(world.publish_again(), PublishResult::published);
    return world.stores(true);
}

class FaultTest : public ::testing::TestWithParam<bool>
{
protected:
    [[nodiscard]] static bool replaces() { return GetParam(); }

    /* Where the file is replaced, it is before the handlers are. */
    [[nodiscard]] bool is_whole(const Stores &stores) const
    {
        return stores == before || stores == after ||
               (replaces() && stores.responder == after.responder && stores.handlers == before.handlers);
    }

    /* What is said to have been done is what has been done. */
    void expect_all_or_nothing(const FaultWorld &world, const Published &published) const
    {
        const Stores found = world.stores(true);

        EXPECT_EQ(published.troubles.size(), published.result == PublishResult::published ? 0U : 1U);
        if (published.result == PublishResult::published) {
            EXPECT_EQ(found, after);
        } else if (published.result == PublishResult::responder_only) {
            EXPECT_EQ(found, (Stores{after.responder, before.handlers}));
        } else {
            EXPECT_EQ(published.result, PublishResult::failed);
            EXPECT_EQ(found, before);
        }
    }

    const Stores before = FaultWorld(GetParam()).stores(true);
    const Stores after = published_stores(GetParam());
};

/* A process publishes and is killed before its nth call that writes.  Whether it came to its end. */
bool publish_and_die(const FaultWorld &world, int nth)
{
    int status = -1;
    const pid_t process = ::fork();

    if (process == 0) {
        Published published;
        const std::unique_ptr<Publisher> publisher = world.publisher(&published);
        const int ready = world.get_ready(publisher.get(), [&] { world.rebuild(); });
        const WriteFaults faults(nth, WriteFault::kills);

        ::_exit(ready == 0 && publisher->publish() == PublishResult::published ? 0 : 1);
    }
    EXPECT_EQ(::waitpid(process, &status, 0), process);
    EXPECT_TRUE(WIFSIGNALED(status) || status == 0);
    return !WIFSIGNALED(status);
}

TEST_P(FaultTest, AKillAtAnyCallThatWritesLeavesTheOldStoresOrTheNewOnes)
{
    int kills = 0;
    int found_before = 0;
    int found_after = 0;

    for (bool is_done = false; !is_done; kills++) {
        const FaultWorld world(replaces());

        SCOPED_TRACE("kill " + std::to_string(kills + 1));
        is_done = publish_and_die(world, kills + 1);

        const Stores found = world.stores(kills % 2 == 0);

        EXPECT_TRUE(is_whole(found));
        found_before += found == before ? 1 : 0;
        found_after += found == after ? 1 : 0;
        EXPECT_EQ(world.publish_again(), PublishResult::published);
        EXPECT_EQ(world.stores(true), after);
        EXPECT_EQ(world.files(), (Lines{"handlers.db", "responder.db"}));
        ASSERT_LT(kills, 200);
    }
    EXPECT_GT(found_before, 10);
    EXPECT_GT(found_after, 1); /* also by a kill behind the commit */
}

TEST_P(FaultTest, AnyCallThatCannotWriteIsOneTroubleAndNothingHalfPublished)
{
    for (const WriteFault fault : {WriteFault::fails_once, WriteFault::fails_on}) {
        int failures = 0;

        for (bool is_done = false; !is_done;) {
            const FaultWorld world(replaces());
            Published published;
            std::unique_ptr<Publisher> publisher = world.publisher(&published);

            SCOPED_TRACE("failure " + std::to_string(failures + 1));
            ASSERT_EQ(world.get_ready(publisher.get(), [&] { world.rebuild(); }), 0);
            {
                const WriteFaults faults(failures + 1, fault);

                published.result = publisher->publish();
                is_done = !faults.has_struck();
            }
            publisher.reset();

            expect_all_or_nothing(world, published);
            EXPECT_EQ(world.publish_again(), PublishResult::published);
            EXPECT_EQ(world.stores(true), after);
            EXPECT_EQ(world.files(), (Lines{"handlers.db", "responder.db"}));
            failures++;
            ASSERT_LT(failures, 200);
        }
        EXPECT_GT(failures, 10);
    }
}

/* All steps; SQLite's nth call fails unless that is 0.  Returns how many calls there were. */
int publish_with_failure(const FaultWorld &world, int nth, Published *published)
{
    SqliteFaults faults;
    const std::unique_ptr<Publisher> publisher = world.publisher(published);
    const auto rebuild = [&] {
        const SqliteFaults::Aside aside;

        world.rebuild();
    };

    if (nth > 0)
        faults.fail_call(nth, SQLITE_IOERR);
    if (world.get_ready(publisher.get(), rebuild) == 0)
        published->result = publisher->publish();
    return faults.calls_made();
}

TEST_P(FaultTest, AnyCallOfSqliteThatFailsIsOneTroubleAndNothingHalfPublished)
{
    Published good;
    const int calls = publish_with_failure(FaultWorld(replaces()), 0, &good);

    EXPECT_EQ(good.result, PublishResult::published);
    EXPECT_GT(calls, 100);
    for (int nth = 1; nth <= calls; nth++) {
        const FaultWorld world(replaces());
        Published published;

        SCOPED_TRACE("failure " + std::to_string(nth));
        (void)publish_with_failure(world, nth, &published);
        expect_all_or_nothing(world, published);
    }
}

/* Not the folder for temporary files, where other copies are made. */
TEST(StagingOfHandlers, FileThatHasNoRoomIsNamed)
{
    bool struck = true;
    int nth = 0;

    for (; struck; nth++) {
        const FaultWorld world(false);
        Published published;
        const std::unique_ptr<Publisher> publisher = world.publisher(&published);

        SCOPED_TRACE("failure " + std::to_string(nth));
        ASSERT_EQ(publisher->open_live(), 0);

        const WriteFaults faults(nth + 1, WriteFault::fails_once);
        const int result = publisher->copy_handlers();

        struck = faults.has_struck();
        EXPECT_EQ(result, published.troubles.empty() ? 0 : -1);
        for (const std::string &trouble : published.troubles)
            EXPECT_TRUE(trouble.starts_with(world.paths.handlers_before + " cannot be made: ") ||
                        trouble.starts_with(world.paths.staged_handlers + " cannot be made: "))
                << trouble;
    }
    EXPECT_GT(nth, 10);
}

/* No lock can be had on a store that is missing. */
TEST(ReplacementOrder, StoreThatIsMadeWhileTheHandlersAreWrittenIsNotReplaced)
{
    const FaultWorld world(true);
    const Lines handlers = world.rows(world.paths.live_handlers);
    const std::string made = world.folder.path("made.db");
    std::optional<WriteFaults> faults;
    Lines troubles;
    Publisher publisher(world.paths, 0,
                        {.trouble = [&](const std::string &words) { troubles.push_back(words); },
                         .note = [](const std::string &) {},
                         .locked =
                             [&] {
                                 faults.emplace(
                                     [&] { std::filesystem::copy_file(made, world.paths.live_responder); });
                             }});

    std::filesystem::rename(world.paths.live_responder, made);
    ASSERT_EQ(world.get_ready(&publisher, [&] { world.rebuild(); }), 0);
    EXPECT_EQ(publisher.publish(), PublishResult::changed_meanwhile);
    EXPECT_EQ(troubles, Lines{world.paths.live_responder + " was changed meanwhile"});
    EXPECT_EQ(world.run(world.paths.live_responder, "PRAGMA user_version"), Lines{"7"});
    EXPECT_EQ(world.rows(world.paths.live_handlers), handlers);
}

/* After a power cut there may be of each folder what was synced last, and of a file what was synced before.
 */
TEST(ReplacementOrder, FileAndFolderAreSyncedBeforeTheNewNameAndAfterIt)
{
    const FaultWorld world(true);
    Published published;
    const std::unique_ptr<Publisher> publisher = world.publisher(&published);

    ASSERT_EQ(world.get_ready(publisher.get(), [&] { world.rebuild(); }), 0);

    const WriteFaults faults(1000, WriteFault::fails_once);

    EXPECT_EQ(publisher->publish(), PublishResult::published);
    EXPECT_EQ(WriteFaults::calls(), (Lines{"unlink", "fchown", "fchmod", "fsync", "unlink", "unlink",
                                           "unlink", "fsync", "rename", "fsync"}));
}

INSTANTIATE_TEST_SUITE_P(Stores, FaultTest, ::testing::Bool());

} // namespace

} // namespace kolmo
