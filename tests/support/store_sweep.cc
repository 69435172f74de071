#include "tests/support/store_sweep.h"

#include <algorithm>
#include <utility>

#include <gtest/gtest.h>

#include "responder_store/kit/busy_retry.h"

namespace kolmo::testing
{

namespace
{

bool begins_with(const std::string &text, const std::string &start)
{
    return text.compare(0, start.size(), start) == 0;
}

bool is_open_call(const FaultRow &row)
{
    return row.call == "open" || row.call == "open_v2";
}

/* The calls that are tried again while they are busy. */
bool is_repeated(const std::string &call)
{
    return begins_with(call, "prepare ") || begins_with(call, "exec ") || call == "step" || call == "close";
}

bool can_fail(const std::string &call)
{
    return is_repeated(call) || begins_with(call, "open ") || begins_with(call, "open_v2 ") ||
           begins_with(call, "bind ");
}

void expect_lines(const Lines &lines, const Lines &expected)
{
    ASSERT_EQ(lines.size(), expected.size()) << ::testing::PrintToString(lines);
    for (std::size_t i = 0; i < lines.size(); i++) {
        const std::string &start = expected[i];

        if (start.compare(start.size() - 2, 2, ": ") != 0) {
            EXPECT_EQ(lines[i], start);
            continue;
        }
        EXPECT_TRUE(begins_with(lines[i], start)) << lines[i] << "\nexpected: " << start;
        EXPECT_GT(lines[i].size(), start.size()) << "no detail: " << lines[i];
        EXPECT_EQ(lines[i].find("general DB errror"), std::string::npos) << "too late for it: " << lines[i];
    }
}

/* The connection that a caller passes, or none; one that was abandoned is closed here, for the leak checker.
 */
class Passed
{
public:
    Passed(const StoreFile &file, bool own) : own_(own)
    {
        if (!own)
            connection_ = file.open();
    }
    ~Passed() { (void)sqlite3_close(connection_.release()); }
    Passed(const Passed &) = delete;
    Passed &operator=(const Passed &) = delete;

    [[nodiscard]] StoreConnection *get() { return own_ ? nullptr : &connection_; }
    [[nodiscard]] Connection state() const
    {
        if (!connection_.is_open())
            return Connection::closed;
        return sqlite3_get_autocommit(connection_.get()) == 0 ? Connection::in_transaction : Connection::open;
    }

private:
    bool own_;
    StoreConnection connection_;
};

/* What has to be unfinalized after the last of these calls, a pause: the statement it belongs to, if any. */
Lines abandoned_statement(const Lines &calls)
{
    const std::string &repeated = calls[calls.size() - 2];

    if (repeated != "step" && !begins_with(repeated, "prepare "))
        return {};
    const auto prepared = std::find_if(calls.rbegin(), calls.rend(),
                                       [](const std::string &call) { return begins_with(call, "prepare "); });

    return {prepared->substr(std::string("prepare ").size())};
}

Lines logged_lines(const std::string &message, const Lines &also_logged)
{
    Lines logged = {"3 " + message};

    logged.insert(logged.end(), also_logged.begin(), also_logged.end());
    return logged;
}

/* Whatever fails closes the connection. */
FaultTable closed_after(const std::string &call, const std::string &message, const Lines &contents,
                        const Lines &also_logged)
{
    return {{call, logged_lines(message, also_logged), -1, Connection::closed, contents}};
}

FaultTable transaction_rows(const std::string &verb, const std::string &message, const Lines &contents,
                            const Lines &also_logged)
{
    return prepare_row(verb + " TRANSACTION;", contents, also_logged) +
           closed_after("step", message, contents, also_logged);
}

/* Nothing but the finalizing of a statement comes between a failing call and its first line. */
void expect_told_at_once(const SqliteFaults &faults)
{
    Lines calls = faults.calls();

    if (faults.failed_call() == "step" && calls.back() == "finalize")
        calls.pop_back();
    EXPECT_EQ(calls.back(), faults.failed_call());
}

} // namespace

void StoreSweep::sweep_calls(const FaultTable &table, const Operation &operation)
{
    sweep_own_calls(table, operation);
    sweep_callers_calls(table, operation);
}

void StoreSweep::sweep_own_calls(const FaultTable &table, const Operation &operation)
{
    int nth = 0;

    ASSERT_FALSE(table.empty());
    for (const FaultRow &row : table) {
        fail_one_call(true, ++nth, row, operation);
        if (is_open_call(row))
            open_without_handle(nth, row, operation);
    }
    fail_no_call(true, table, operation);
}

void StoreSweep::sweep_callers_calls(const FaultTable &table, const Operation &operation)
{
    FaultTable rows;
    int nth = 0;

    for (const FaultRow &row : table) {
        if (is_open_call(row) || row.call == "close")
            continue;
        fail_one_call(false, ++nth, row, operation);
        rows.push_back(row);
    }
    fail_no_call(false, rows, operation);
}

void StoreSweep::fail_one_call(bool own, int nth, const FaultRow &row, const Operation &operation)
{
    SCOPED_TRACE((own ? "own connection, call " : "caller's connection, call ") + std::to_string(nth) + ": " +
                 row.call);
    fill();
    Passed passed(file_, own);
    {
        SqliteFaults faults;

        faults.fail_call(nth);
        log_.on_line = [&, is_first = true]() mutable {
            if (std::exchange(is_first, false))
                expect_told_at_once(faults);
        };
        EXPECT_EQ(operation(passed.get()), row.result);
        log_.on_line = nullptr;
        EXPECT_EQ(is_open_call(row) ? faults.failed_call().substr(0, row.call.size()) : faults.failed_call(),
                  row.call);
        EXPECT_TRUE(std::none_of(faults.calls().begin(), faults.calls().end(), [](const std::string &call) {
            return call.find("ROLLBACK") != call.npos;
        })) << "nobody rolls back: closing discards what has begun";
        expect_lines(log_.take(), row.logged);
        EXPECT_TRUE(faults.open_statements().empty());
        /* A close that fails is not examined: the connection is given up. */
        EXPECT_EQ(faults.open_connections().size(), row.call == "close" ? 1U : 0U);
        EXPECT_EQ(passed.state(), own ? Connection::closed : row.connection);
    }
    EXPECT_EQ(contents(), row.contents);
}

void StoreSweep::open_without_handle(int nth, const FaultRow &row, const Operation &operation)
{
    SCOPED_TRACE("no handle from call " + std::to_string(nth));
    fill();
    {
        SqliteFaults faults;

        faults.fail_call(nth);
        faults.open_without_handle();
        EXPECT_EQ(operation(nullptr), row.result);
        EXPECT_EQ(faults.count("close"), nth > 1 ? 1 : 0) << "there is nothing to close";
    }
    Lines expected = row.logged;
    ASSERT_FALSE(expected.empty());
    expected[0] += "general DB errror";
    EXPECT_EQ(log_.take(), expected);
    EXPECT_EQ(contents(), row.contents);
}

void StoreSweep::fail_no_call(bool own, const FaultTable &table, const Operation &operation)
{
    SCOPED_TRACE(own ? "own connection, no failure" : "caller's connection, no failure");
    const auto prepared = std::count_if(
        table.begin(), table.end(), [](const FaultRow &row) { return begins_with(row.call, "prepare "); });
    fill();
    Passed passed(file_, own);
    SqliteFaults faults;

    EXPECT_EQ(operation(passed.get()), 0);
    EXPECT_EQ(faults.calls_made(), static_cast<int>(table.size()));
    EXPECT_EQ(faults.count("busy_timeout 50"), faults.count("open") + faults.count("open_v2"));
    EXPECT_EQ(faults.count("finalize"), prepared);
    EXPECT_EQ(faults.count("reset"), 0);
    EXPECT_TRUE(faults.pauses().empty());
    EXPECT_TRUE(faults.open_connections().empty());
    EXPECT_TRUE(faults.open_statements().empty());
    EXPECT_EQ(passed.state(), own ? Connection::closed : Connection::open);
    EXPECT_EQ(log_.take(), Lines{});
}

/* Of a run that succeeds. */
std::vector<StoreSweep::RepeatedCall> StoreSweep::repeated_calls(bool own, const Operation &operation)
{
    std::vector<RepeatedCall> repeated;
    int number = 0;

    fill();
    Passed passed(file_, own);
    SqliteFaults faults;

    EXPECT_EQ(operation(passed.get()), 0);
    for (const std::string &call : faults.calls()) {
        if (can_fail(call))
            number++;
        if (is_repeated(call))
            repeated.push_back({number, call == "close"});
    }
    EXPECT_EQ(number, faults.calls_made());
    return repeated;
}

void StoreSweep::sweep_busy_calls(const std::vector<Lines> &contents_after, const Operation &operation)
{
    const std::vector<RepeatedCall> calls = repeated_calls(true, operation);

    ASSERT_EQ(calls.size(), contents_after.size());
    for (std::size_t i = 0; i < calls.size(); i++)
        be_busy_at(calls[i].number, contents_after[i], operation);
}

void StoreSweep::be_busy_at(int nth, const Lines &expected, const Operation &operation)
{
    SCOPED_TRACE("own connection, busy call " + std::to_string(nth));
    fill();
    {
        SqliteFaults faults;

        faults.fail_call(nth, SQLITE_BUSY);
        faults.fail_call(nth + 1, SQLITE_BUSY);
        EXPECT_EQ(operation(nullptr), 0);
        EXPECT_EQ(faults.pauses(), (std::vector<long>{10'000, 20'000}));
        EXPECT_EQ(faults.count("reset"), faults.failed_call() == "step" ? 2 : 0);
        EXPECT_TRUE(faults.open_connections().empty());
        EXPECT_TRUE(faults.open_statements().empty());
    }
    EXPECT_EQ(log_.take(), Lines{});
    EXPECT_EQ(contents(), expected);
}

void StoreSweep::fail_pauses(bool own, const std::vector<Lines> &contents_after, const Operation &operation)
{
    const std::vector<RepeatedCall> calls = repeated_calls(own, operation);

    ASSERT_EQ(calls.size(), contents_after.size());
    for (std::size_t i = 0; i < calls.size(); i++)
        fail_pause_at(own, calls[i].number, contents_after[i], operation);
}

void StoreSweep::sweep_own_pauses(const std::vector<Lines> &contents_after, const Operation &operation)
{
    fail_pauses(true, contents_after, operation);
}

void StoreSweep::sweep_callers_pauses(const std::vector<Lines> &contents_after, const Operation &operation)
{
    fail_pauses(false, contents_after, operation);
}

/* A caller's connection is not closed. */
void StoreSweep::sweep_pauses(const std::vector<Lines> &contents_after, const Operation &operation)
{
    const std::vector<RepeatedCall> calls = repeated_calls(true, operation);
    std::vector<Lines> callers;

    sweep_own_pauses(contents_after, operation);
    for (std::size_t i = 0; i < calls.size(); i++) {
        if (!calls[i].is_close)
            callers.push_back(contents_after[i]);
    }
    sweep_callers_pauses(callers, operation);
}

void StoreSweep::fail_pause_at(bool own, int nth, const Lines &expected, const Operation &operation)
{
    SCOPED_TRACE((own ? "own connection, pause after call " : "caller's connection, pause after call ") +
                 std::to_string(nth));
    fill();
    Passed passed(file_, own);
    {
        SqliteFaults faults;

        faults.fail_call(nth, SQLITE_BUSY);
        faults.fail_pause(1);
        EXPECT_EQ(operation(passed.get()), -1);
        ASSERT_GT(faults.calls().size(), 1U);
        EXPECT_EQ(faults.calls().back(), "pause 10000") << "something was done after it";
        EXPECT_EQ(faults.open_statements(), abandoned_statement(faults.calls()));
        const int refused_closes = faults.failed_call() == "close" ? 1 : 0;
        EXPECT_EQ(static_cast<int>(faults.open_connections().size()),
                  faults.count("open") + faults.count("open_v2") - faults.count("close") + refused_closes);
        if (!own) {
            /* What a caller does with its connection then: nothing comes of it. */
            const std::size_t calls = faults.calls().size();

            EXPECT_TRUE(passed.get()->is_abandoned());
            EXPECT_EQ(operation(passed.get()), -1);
            EXPECT_EQ(close_with_retry(passed.get()), Ending::abandoned);
            EXPECT_EQ(faults.calls().size(), calls);
        }
    }
    EXPECT_EQ(log_.take(), Lines{});
    EXPECT_EQ(contents(), expected);
}

void StoreSweep::sweep_busy_calls_and_pauses(int calls_before, const Lines &before, const Lines &after,
                                             const Operation &operation)
{
    const int calls = static_cast<int>(repeated_calls(true, operation).size());

    sweep_busy_calls(repeat({{calls, after}}), operation);
    sweep_pauses(repeat({{calls_before, before}, {calls - calls_before, after}}), operation);
}

void StoreSweep::fail_prepare_and_pause_of_close(int nth_prepare, int nth_pause, const Operation &operation)
{
    fill();
    SqliteFaults faults;

    faults.fail_call(SqliteCall::prepare, nth_prepare);
    faults.be_busy(SqliteCall::close, 1);
    faults.fail_pause(nth_pause);
    EXPECT_EQ(operation(nullptr), -1);
    EXPECT_EQ(faults.calls().back(), "pause 10000");
    const std::string sql = faults.failed_call().substr(std::string("prepare ").size());
    expect_lines(log_.take(), {"3 Unable to prepare SQL statement for query '" + sql + "': "});
}

FaultTable StoreSweep::open_row(const Lines &contents, const Lines &also_logged) const
{
    return closed_after("open", "Unable to open database " + file_.path() + ": ", contents, also_logged);
}

FaultTable StoreSweep::open_to_read_row(const Lines &contents, const Lines &also_logged) const
{
    return closed_after("open_v2", "Unable to open database(readonly) " + file_.path() + ": ", contents,
                        also_logged);
}

FaultTable prepare_row(const std::string &sql, const Lines &contents, const Lines &also_logged)
{
    return closed_after("prepare " + sql,
                        "Unable to prepare SQL statement for query '" + sql + "': ", contents, also_logged);
}

FaultTable step_row(const std::string &message, int result, const Lines &contents, const Lines &also_logged)
{
    return open_after("step", message, result, Connection::open, contents, also_logged);
}

FaultTable open_after(const std::string &call, const std::string &message, int result, Connection connection,
                      const Lines &contents, const Lines &also_logged)
{
    return {{call, logged_lines(message, also_logged), result, connection, contents}};
}

FaultTable close_row(const Lines &contents)
{
    return {{"close", {}, 0, Connection::closed, contents}};
}

FaultTable statement_rows(const std::string &sql, const Bound &bound, const Lines &contents,
                          const Lines &also_logged)
{
    FaultTable rows = prepare_row(sql, contents, also_logged);

    for (const auto &[value, message] : bound)
        rows = rows + closed_after("bind " + std::to_string(rows.size()) + ' ' + value, message, contents,
                                   also_logged);
    return rows;
}

FaultTable begin_rows(const Lines &contents, const Lines &also_logged)
{
    return transaction_rows("BEGIN", "Unable to begin sqlite transaction: ", contents, also_logged);
}

FaultTable end_rows(const Lines &contents, const Lines &also_logged)
{
    return transaction_rows("END", "Unable to end sqlite transaction: ", contents, also_logged);
}

std::vector<Lines> repeat(const std::vector<std::pair<int, Lines>> &runs)
{
    std::vector<Lines> all;

    for (const auto &[times, lines] : runs)
        all.insert(all.end(), static_cast<std::size_t>(times), lines);
    return all;
}

FaultTable operator+(FaultTable first, const FaultTable &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

} // namespace kolmo::testing
