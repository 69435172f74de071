#include "tests/support/store_sweep.h"

#include <gtest/gtest.h>

#include "responder_store/busy_retry.h"
#include "tests/support/log_capture.h"
#include "tests/support/sqlite_faults.h"

namespace kolmo::testing
{

namespace
{

/* One run: the store, the caller's connection in it if there is one, and the faults, which start last. */
struct SweptRun {
    SweptRun(const StoreSweep::Setup &setup, bool is_own)
        : own(is_own), connection(set_up(setup, store, is_own)), handle(connection.get())
    {
    }

    [[nodiscard]] StoreConnection *argument() { return own ? nullptr : &connection; }

    /* All that can be seen afterwards, in a form to be compared and read. */
    [[nodiscard]] std::string outcome(int result);

    /* What a caller does with its connection after a failed pause: nothing comes of it. */
    void expect_abandoned(const StoreSweep::Operation &operation);

    bool own;
    ResponderStore store;
    CallersConnection connection;
    sqlite3 *handle;
    SqliteFaults faults;
    LogCapture log;

private:
    static StoreConnection set_up(const StoreSweep::Setup &setup, const ResponderStore &store, bool is_own);
    [[nodiscard]] Left left() const;
};

std::string outcome_text(int result, Left left, const Lines &logged, const Lines &unfinalized,
                         const Lines &rows)
{
    const char *const states[] = {"closed", "open", "in transaction"};
    std::string text = "result " + std::to_string(result) + ", " + states[static_cast<int>(left)] + '\n';

    for (const std::string &line : logged)
        text += "logged: " + line + '\n';
    for (const std::string &statement : unfinalized)
        text += "unfinalized: " + statement + '\n';
    for (const std::string &row : rows)
        text += "row: " + row + '\n';
    return text;
}

StoreConnection SweptRun::set_up(const StoreSweep::Setup &setup, const ResponderStore &store, bool is_own)
{
    setup(store);
    return is_own ? StoreConnection() : store.open();
}

Left SweptRun::left() const
{
    const std::vector<sqlite3 *> opened = faults.open_connections();
    sqlite3 *open = opened.empty() ? nullptr : opened.front();

    if (!own) {
        EXPECT_EQ(connection.get() != nullptr, !faults.is_closed(handle))
            << "the caller must be able to know";
        EXPECT_TRUE(opened.empty());
        open = connection.get();
    }
    if (open == nullptr)
        return Left::closed;
    return sqlite3_get_autocommit(open) == 0 ? Left::in_transaction : Left::open;
}

std::string SweptRun::outcome(int result)
{
    const SqliteFaults::Aside aside;

    return outcome_text(result, left(), log.take(), faults.open_statements(), store.rows());
}

void SweptRun::expect_abandoned(const StoreSweep::Operation &operation)
{
    const std::size_t calls = faults.calls().size();

    if (own)
        return;
    EXPECT_TRUE(connection.is_abandoned());
    EXPECT_EQ(operation(&connection), -1);
    EXPECT_EQ(close_with_retry(&connection), Ending::abandoned);
    EXPECT_EQ(faults.calls().size(), calls);
    EXPECT_EQ(log.take(), Lines{});
}

} // namespace

void StoreSweep::fail_each_call(const std::vector<FaultRow> &table) const
{
    const Lines rows_before = SweptRun(setup_, false).store.rows();
    int nth = 0;

    for (FaultRow row : table) {
        fail_call(false, ++nth, row);
        row.left = Left::closed;
        fail_call(true, nth + 1, row);
    }
    succeed(false, table.size());

    fail_open(true, rows_before);
    fail_open(false, rows_before);
    /* What SQLite makes of the closing is nobody's concern; a close that was not made leaves it open here. */
    fail_call(true, nth + 2, {"close", "", 0, Left::open, rows_after_});
    succeed(true, table.size() + 2);
}

void StoreSweep::fail_call(bool own, int nth, const FaultRow &row) const
{
    SCOPED_TRACE((own ? "own connection, call " : "caller's connection, call ") + std::to_string(nth));
    SweptRun run(setup_, own);
    const Lines logged = row.message.empty() ? Lines{} : Lines{"3 " + row.message + "not an error"};

    run.faults.fail_call(nth);

    const int result = operation_(run.argument());

    EXPECT_EQ(run.faults.failed_call(), row.call);
    EXPECT_EQ(run.outcome(result), outcome_text(row.result, row.left, logged, {}, row.rows));
}

void StoreSweep::fail_open(bool with_handle, const Lines &rows) const
{
    SCOPED_TRACE(with_handle ? "open with a handle" : "open without a handle");
    SweptRun run(setup_, true);
    const std::string path = run.store.path();
    const Lines calls = with_handle ? Lines{"open " + path, "close"} : Lines{"open " + path};
    const char *const detail = with_handle ? "not an error" : "general DB errror";

    run.faults.fail_call(SqliteCall::open, 1);
    if (!with_handle)
        run.faults.open_without_handle();

    const int result = operation_(run.argument());

    EXPECT_EQ(run.faults.calls(), calls);
    EXPECT_EQ(
        run.outcome(result),
        outcome_text(-1, Left::closed, {"3 Unable to open database " + path + ": " + detail}, {}, rows));
}

void StoreSweep::fail_each_pause(const std::vector<PauseRow> &table) const
{
    int nth = 0;

    for (const PauseRow &row : table) {
        fail_pause(false, ++nth, row);
        fail_pause(true, nth, row);
    }
    succeed_with_pauses(false, table.size());
    fail_pause(true, nth + 1, {"", Left::closed, rows_after_});
    succeed_with_pauses(true, table.size() + 1);
}

void StoreSweep::fail_pause(bool own, int nth, const PauseRow &row) const
{
    SCOPED_TRACE((own ? "own connection, pause " : "caller's connection, pause ") + std::to_string(nth));
    SweptRun run(setup_, own);
    const Lines unfinalized = row.statement.empty() ? Lines{} : Lines{row.statement};

    run.faults.be_busy_everywhere(1);
    run.faults.fail_pause(nth);

    const int result = operation_(run.argument());

    EXPECT_EQ(run.faults.pauses().size(), static_cast<std::size_t>(nth));
    EXPECT_EQ(run.faults.calls().back(), "pause 10000");
    EXPECT_EQ(run.outcome(result), outcome_text(-1, row.left, {}, unfinalized, row.rows));
    run.expect_abandoned(operation_);
}

void StoreSweep::succeed(bool own, std::size_t calls) const
{
    SCOPED_TRACE(own ? "own connection, no fault" : "caller's connection, no fault");
    SweptRun run(setup_, own);
    const int result = operation_(run.argument());

    EXPECT_EQ(static_cast<std::size_t>(run.faults.calls_made()), calls);
    EXPECT_EQ(run.outcome(result), outcome_text(0, own ? Left::closed : Left::open, {}, {}, rows_after_));
}

void StoreSweep::succeed_with_pauses(bool own, std::size_t pauses) const
{
    SCOPED_TRACE(own ? "own connection, all pauses good" : "caller's connection, all pauses good");
    SweptRun run(setup_, own);

    run.faults.be_busy_everywhere(1);

    const int result = operation_(run.argument());

    EXPECT_EQ(run.faults.pauses(), std::vector<long>(pauses, 10'000));
    EXPECT_EQ(run.outcome(result), outcome_text(0, own ? Left::closed : Left::open, {}, {}, rows_after_));
}

} // namespace kolmo::testing
