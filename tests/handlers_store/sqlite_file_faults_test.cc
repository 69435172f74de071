/* Creating a store: failing calls and pauses; what else can fail is in handlers_db_file_faults_test.cc. */
#include "handlers_store/sqlite_file.h"

#include <string>

#include <unistd.h>

#include "handlers_store/handlers_db.h"
#include "tests/handlers_store/handlers_sweep.h"

namespace kolmo::testing
{

namespace
{

constexpr const char *script = "BEGIN TRANSACTION;CREATE TABLE t (x);COMMIT;";

/* Starts without a file; looked at are the tables. */
class SqliteDbRecreateFaults : public HandlersSweep
{
protected:
    void fill() override { (void)unlink(store.path().c_str()); }

    Lines contents() override
    {
        return store.exists() ? store.query("SELECT name FROM sqlite_master") : Lines{};
    }

    const Operation recreate = [this](StoreConnection *) {
        return sqlite_db_recreate(store.path().c_str(), script, "test store");
    };
    const Lines after = {"t"};
};

/* SQLite's text of a refused attempt goes, and the leak checker looks whether it does. */
TEST_F(SqliteDbRecreateFaults, FailsInItsOwnWayAtEveryCallAndPause)
{
    sweep_own_calls(open_row({}) +
                        open_after(std::string("exec ") + script,
                                   "Unable to re-create test store database: refused by the test", -1,
                                   Connection::closed, {}) +
                        close_row(after),
                    recreate);
    sweep_own_pauses({after, after}, recreate);
    sweep_busy_calls({after, after}, recreate);
}

TEST_F(SqliteDbRecreateFaults, BusyTimeoutIsSetBeforeTheScriptRuns)
{
    fill();
    SqliteFaults faults;

    EXPECT_EQ(recreate(nullptr), 0);
    EXPECT_EQ(faults.calls(),
              (Lines{"open " + store.path(), "busy_timeout 50", std::string("exec ") + script, "close"}));
}

TEST_F(SqliteDbRecreateFaults, FailureIsReportedBeforeTheFileIsClosed)
{
    fill();
    SqliteFaults faults;
    std::string before;

    faults.fail_call(SqliteCall::exec, 1);
    log.on_line = [&] {
        before = faults.calls().back();
    };
    EXPECT_EQ(recreate(nullptr), -1);
    EXPECT_FALSE(log.take_one().empty());
    EXPECT_EQ(before, std::string("exec ") + script);
}

/* Its connection is still open, perhaps with a transaction: the file is not this process's to remove. */
TEST_F(SqliteDbRecreateFaults, FailedPauseOfTheSchemaLeavesTheFile)
{
    store.remove();
    SqliteFaults faults;

    faults.be_busy(SqliteCall::exec, 1);
    faults.fail_pause(1);
    EXPECT_EQ(handlers_db_create(), -1);
    EXPECT_EQ(faults.open_connections().size(), 1U);
    EXPECT_TRUE(store.exists());
}

} // namespace

} // namespace kolmo::testing
