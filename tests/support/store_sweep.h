/*
 * store_sweep: every failure that a store operation can meet, one after the other.
 *
 * A sweep runs an operation once for each of its SQLite calls, in a fresh store each time, and lets the n-th
 * call fail (or the n-th pause); what comes of it is compared with row n of a table.  A last run, in which
 * nothing fails, must succeed with exactly as many calls as the table has rows.  The table is the one for
 * a connection of the caller's.  For one of the operation's own it follows from it: an open before, a close
 * after, and nothing left open.
 *
 * Store is a fixture such as ResponderStore: default-constructed it is a fresh store, to which the operation
 * leads without a connection; path(), rows() and open() as there.
 */
#ifndef KOLMO_TESTS_SUPPORT_STORE_SWEEP_H
#define KOLMO_TESTS_SUPPORT_STORE_SWEEP_H

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "responder_store/store_connection.h"
#include "tests/support/log_capture.h"
#include "tests/support/sqlite_faults.h"

namespace kolmo::testing
{

using Lines = std::vector<std::string>;

/* What an operation leaves of its connection. */
enum class Left { closed, open, in_transaction };

/* What one failing call must come to. */
struct FaultRow {
    std::string call;    /* as SqliteFaults records it */
    std::string message; /* logged at priority 3, up to SQLite's detail; empty for nothing */
    int result;
    Left left;
    Lines rows; /* in the store afterwards */
};

/* What one failing pause must leave. */
struct PauseRow {
    std::string statement; /* not finalized; empty for none */
    Left left;
    Lines rows;
};

/* One run: the store, the caller's connection in it if there is one, and the faults, which start last. */
template <typename Store>
struct SweptRun {
    using Setup = std::function<void(const Store &)>;

    SweptRun(const Setup &setup, bool is_own)
        : own(is_own), connection(set_up(setup, store, is_own)), handle(connection.get())
    {
    }

    [[nodiscard]] StoreConnection *argument() { return own ? nullptr : &connection; }

    /* All that can be seen afterwards, in a form to be compared and read. */
    [[nodiscard]] std::string outcome(int result);

    bool own;
    Store store;
    StoreConnection connection;
    sqlite3 *handle;
    SqliteFaults faults;
    LogCapture log;

private:
    static StoreConnection set_up(const Setup &setup, const Store &store, bool is_own);
    [[nodiscard]] Left left() const;
};

inline std::string outcome_text(int result, Left left, const Lines &logged, const Lines &unfinalized,
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

template <typename Store>
StoreConnection SweptRun<Store>::set_up(const Setup &setup, const Store &store, bool is_own)
{
    setup(store);
    return is_own ? StoreConnection() : store.open();
}

template <typename Store>
Left SweptRun<Store>::left() const
{
    const std::vector<sqlite3 *> opened = faults.open_connections();
    sqlite3 *open = opened.empty() ? nullptr : opened.front();

    if (!own) {
        EXPECT_EQ(connection.is_open(), !faults.is_closed(handle)) << "the caller must be able to know";
        EXPECT_TRUE(opened.empty());
        open = connection.get();
    }
    if (open == nullptr)
        return Left::closed;
    return sqlite3_get_autocommit(open) == 0 ? Left::in_transaction : Left::open;
}

template <typename Store>
std::string SweptRun<Store>::outcome(int result)
{
    const SqliteFaults::Aside aside;

    return outcome_text(result, left(), log.take(), faults.open_statements(), store.rows());
}

template <typename Store>
class StoreSweep
{
public:
    using Operation = std::function<int(StoreConnection *)>;
    using Setup = typename SweptRun<Store>::Setup;

    /* An operation that succeeds with 0 and these rows, in a store that was set up so. */
    StoreSweep(
        Operation operation, Lines rows_after, Setup setup = [](const Store &) {})
        : operation_(std::move(operation)), rows_after_(std::move(rows_after)), setup_(std::move(setup))
    {
    }

    /*
     * Lets each SQLite call fail with SQLITE_ERROR, on the caller's connection and on one of the operation's
     * own, whose open is also made to fail without a handle.
     */
    void fail_each_call(const std::vector<FaultRow> &table) const;

    /*
     * Refuses every call as busy once, so that a pause follows whatever is tried again, and lets each pause
     * fail: nothing may be logged, called or closed after it, and the result must be -1.
     */
    void fail_each_pause(const std::vector<PauseRow> &table) const;

    /* How the store is opened and what is logged when that fails, each up to the path, and the call after it.
     */
    std::string open_call = "open ";
    std::string open_flags = "";
    std::string open_message = "Unable to open database ";

private:
    void fail_call(bool own, int nth, const FaultRow &row) const;
    void fail_open(bool with_handle, const Lines &rows) const;
    void fail_pause(bool own, int nth, const PauseRow &row) const;
    void succeed(bool own, std::size_t calls) const;
    void succeed_with_pauses(bool own, std::size_t pauses) const;

    Operation operation_;
    Lines rows_after_;
    Setup setup_;
};

template <typename Store>
void StoreSweep<Store>::fail_each_call(const std::vector<FaultRow> &table) const
{
    const Lines rows_before = SweptRun<Store>(setup_, false).store.rows();
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

template <typename Store>
void StoreSweep<Store>::fail_call(bool own, int nth, const FaultRow &row) const
{
    SCOPED_TRACE((own ? "own connection, call " : "caller's connection, call ") + std::to_string(nth));
    SweptRun<Store> run(setup_, own);
    const Lines logged = row.message.empty() ? Lines{} : Lines{"3 " + row.message + "not an error"};

    run.faults.fail_call(nth);

    const int result = operation_(run.argument());

    EXPECT_EQ(run.faults.failed_call(), row.call);
    EXPECT_EQ(run.outcome(result), outcome_text(row.result, row.left, logged, {}, row.rows));
}

template <typename Store>
void StoreSweep<Store>::fail_open(bool with_handle, const Lines &rows) const
{
    SCOPED_TRACE(with_handle ? "open with a handle" : "open without a handle");
    SweptRun<Store> run(setup_, true);
    const std::string path = run.store.path();
    const Lines calls =
        with_handle ? Lines{open_call + path + open_flags, "close"} : Lines{open_call + path + open_flags};
    const char *const detail = with_handle ? "not an error" : "general DB errror";

    run.faults.fail_call(SqliteCall::open, 1);
    if (!with_handle)
        run.faults.open_without_handle();

    const int result = operation_(run.argument());

    EXPECT_EQ(run.faults.calls(), calls);
    EXPECT_EQ(run.outcome(result),
              outcome_text(-1, Left::closed, {"3 " + open_message + path + ": " + detail}, {}, rows));
}

template <typename Store>
void StoreSweep<Store>::fail_each_pause(const std::vector<PauseRow> &table) const
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

template <typename Store>
void StoreSweep<Store>::fail_pause(bool own, int nth, const PauseRow &row) const
{
    SCOPED_TRACE((own ? "own connection, pause " : "caller's connection, pause ") + std::to_string(nth));
    SweptRun<Store> run(setup_, own);
    const Lines unfinalized = row.statement.empty() ? Lines{} : Lines{row.statement};

    run.faults.be_busy_everywhere(1);
    run.faults.fail_pause(nth);

    const int result = operation_(run.argument());

    EXPECT_EQ(run.faults.pauses().size(), static_cast<std::size_t>(nth));
    EXPECT_EQ(run.faults.calls().back(), "pause 10000");
    EXPECT_EQ(run.outcome(result), outcome_text(-1, row.left, {}, unfinalized, row.rows));
}

template <typename Store>
void StoreSweep<Store>::succeed(bool own, std::size_t calls) const
{
    SCOPED_TRACE(own ? "own connection, no fault" : "caller's connection, no fault");
    SweptRun<Store> run(setup_, own);
    const int result = operation_(run.argument());

    EXPECT_EQ(static_cast<std::size_t>(run.faults.calls_made()), calls);
    EXPECT_EQ(run.outcome(result), outcome_text(0, own ? Left::closed : Left::open, {}, {}, rows_after_));
}

template <typename Store>
void StoreSweep<Store>::succeed_with_pauses(bool own, std::size_t pauses) const
{
    SCOPED_TRACE(own ? "own connection, all pauses good" : "caller's connection, all pauses good");
    SweptRun<Store> run(setup_, own);

    run.faults.be_busy_everywhere(1);

    const int result = operation_(run.argument());

    EXPECT_EQ(run.faults.pauses(), std::vector<long>(pauses, 10'000));
    EXPECT_EQ(run.outcome(result), outcome_text(0, own ? Left::closed : Left::open, {}, {}, rows_after_));
}

} // namespace kolmo::testing

#endif
