#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "handlers_store/sqlite_file.h"
#include "tests/handlers_store/handlers_sweep.h"

namespace kolmo
{

namespace
{

using namespace testing;

constexpr const char *script = "BEGIN TRANSACTION;CREATE TABLE t (x);COMMIT;";

/* Starts without a file; what is left are the tables. */
class SqliteDbRecreateFaults : public HandlersSweep
{
protected:
    void fill() override { (void)unlink(store.path().c_str()); }

    Lines left() override { return store.exists() ? store.query("SELECT name FROM sqlite_master") : Lines{}; }

    const Operation recreate = [this](StoreConnection *) {
        return sqlite_db_recreate(store.path().c_str(), script, "test store");
    };
    const Lines before = {};
    const Lines after = {"t"};
};

TEST_F(SqliteDbRecreateFaults, EveryCallFailsOnce)
{
    sweep_own_calls({open_row(before),
                     {std::string("exec ") + script,
                      {"3 Unable to re-create test store database: refused by the test"},
                      -1,
                      Connection::closed,
                      before},
                     close_row(after)},
                    recreate);
}

TEST_F(SqliteDbRecreateFaults, EveryPauseFailsOnce)
{
    sweep_own_pauses({after, after}, recreate);
}

/* SQLite's text of the refused attempts goes, and the leak checker looks whether it does. */
TEST_F(SqliteDbRecreateFaults, EveryCallIsBusyTwice)
{
    sweep_own_busy_calls({after, after}, recreate);
}

TEST_F(SqliteDbRecreateFaults, BusyTimeoutIsSetBeforeTheScriptRuns)
{
    fill();
    SqliteFaults faults;

    EXPECT_EQ(recreate(nullptr), 0);
    EXPECT_EQ(faults.calls(),
              (Lines{"open " + store.path(), "busy_timeout 50", std::string("exec ") + script, "close"}));
}

} // namespace

} // namespace kolmo
