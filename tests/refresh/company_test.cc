/* Others write while stores are published again and again: nothing of theirs is lost. */
#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <new>
#include <random>
#include <string>

#include <gtest/gtest.h>
#include <poll.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/refresh/publisher_world.h"

namespace kolmo
{

namespace
{

using namespace testing;

constexpr int rounds = 200;

/* Seen by all processes. */
struct Board {
    std::atomic<int> round = 0;
    std::atomic<int> handlers = 0; /* so many have been written */
    std::atomic<int> replies = 0;
};

class SharedBoard
{
public:
    SharedBoard()
        : board_(new (::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                             0)) Board)
    {
    }
    ~SharedBoard() { (void)::munmap(board_, sizeof(Board)); }
    SharedBoard(const SharedBoard &) = delete;
    SharedBoard &operator=(const SharedBoard &) = delete;

    Board *operator->() const { return board_; }

private:
    Board *board_;
};

/* As patient as it takes; what it writes is written when it returns. */
bool write_to(const std::string &path, const std::string &sql)
{
    sqlite3 *db = nullptr;
    int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);

    (void)sqlite3_busy_timeout(db, 60000);
    if (rc == SQLITE_OK)
        rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK)
        (void)std::fprintf(stderr, "the writer is refused: %d %s, errno %d\n", sqlite3_extended_errcode(db),
                           sqlite3_errmsg(db), sqlite3_system_errno(db));
    (void)sqlite3_close(db);
    return rc == SQLITE_OK;
}

/* A process that writes something once in each round, at any moment of it. */
class Writer
{
public:
    template <typename Write>
    Writer(const SharedBoard &board, unsigned seed, Write &&write) : board_(board), process_(::fork())
    {
        if (process_ != 0)
            return;
        (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);

        std::minstd_rand random(seed);

        for (int round = 1; round <= rounds; round++) {
            while (board->round < round)
                (void)::poll(nullptr, 0, 1);
            (void)::poll(nullptr, 0, static_cast<int>(random() % 12));
            if (!write(round))
                ::_exit(1);
        }
        ::_exit(0);
    }
    ~Writer()
    {
        int status = -1;

        board_->round = rounds; /* no others come, when the test has failed */
        EXPECT_EQ(::waitpid(process_, &status, 0), process_);
        EXPECT_EQ(status, 0);
    }
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

private:
    const SharedBoard &board_;
    pid_t process_;
};

class CompanyTest : public PublisherTest
{
protected:
    CompanyTest()
    {
        std::filesystem::copy_file(world.paths.live_responder, panel);
        for (const std::string &path : {panel, world.paths.live_responder})
            (void)world.run(path, sql_reply("a@x.test", "0") + sql_reply("b@x.test", "0"));
        (void)world.run(world.paths.live_handlers, sql_handler("a@x.test", 0));
    }

    /* The staged responder store is what the panel's replies are now. */
    void rebuild(int round) const
    {
        (void)world.run(
            world.paths.staged_responder,
            "ATTACH '" + panel +
                "' AS panel; BEGIN; DELETE FROM autoresponder; INSERT INTO autoresponder SELECT * FROM "
                "panel.autoresponder; UPDATE autoresponder SET body = '" +
                std::to_string(round) + "' WHERE mn = 'a@x.test'; COMMIT;");
        (void)world.run(world.paths.staged_handlers, sql_handler("a@x.test", round));
    }

    std::string panel = world.folder.path("panel.db");
    SharedBoard board;
};

TEST_F(CompanyTest, WhatOthersWriteWhileStoresArePublishedIsNeverLost)
{
    int beginnings = 0;

    {
        Writer handlers(board, 1, [&](int round) {
            const bool is_written = write_to(world.paths.live_handlers,
                                             sql_handler("h" + std::to_string(round) + "@x.test", 5, "spam"));

            board->handlers = round;
            return is_written;
        });
        Writer replies(board, 2, [&](int round) {
            /* The panel has it first, so the live store may have got it by a publication already. */
            const std::string reply = sql_reply("r" + std::to_string(round) + "@x.test", "R");
            const bool is_written = write_to(panel, reply) && write_to(world.paths.live_responder, reply);

            board->replies = round;
            return is_written;
        });

        for (int round = 1; round <= rounds; round++) {
            Published published;

            board->round = round;
            do {
                published = world.publish([&] { rebuild(round); });
                beginnings++;
            } while (published.result == PublishResult::changed_meanwhile);
            ASSERT_EQ(published.result, PublishResult::published)
                << ::testing::PrintToString(published.troubles);

            const Lines written = {std::to_string(round), std::to_string(round),
                                   std::to_string(board->handlers), std::to_string(board->replies)};
            const Lines found = {
                world.run(world.paths.live_responder, "SELECT body FROM autoresponder WHERE mn = 'a@x.test'")
                    .at(0),
                world
                    .run(world.paths.live_handlers,
                         "SELECT priority FROM handlers WHERE address = 'a@x.test'")
                    .at(0),
                world
                    .run(world.paths.live_handlers, "SELECT count(*) FROM handlers WHERE name = 'spam' AND "
                                                    "CAST(substr(address, 2) AS INTEGER) <= " +
                                                        written[2])
                    .at(0),
                world
                    .run(world.paths.live_responder,
                         "SELECT count(*) FROM autoresponder WHERE mn LIKE 'r%' AND "
                         "CAST(substr(mn, 2) AS INTEGER) <= " +
                             written[3])
                    .at(0)};

            ASSERT_EQ(found, written);
        }
    }
    RecordProperty("beginnings", beginnings);
    EXPECT_EQ(world.run(world.paths.live_responder, "SELECT count(*) FROM autoresponder"),
              Lines{std::to_string(rounds + 2)});
}

} // namespace

} // namespace kolmo
