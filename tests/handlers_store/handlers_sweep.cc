#include "tests/handlers_store/handlers_sweep.h"

#include <algorithm>
#include <optional>

#include <gtest/gtest.h>

#include "responder_store/busy_retry.h"
#include "tests/handlers_store/handlers_texts.h"

namespace kolmo::testing
{

namespace
{

bool begins_with(const std::string &text, const std::string &start)
{
    return text.compare(0, start.size(), start) == 0;
}

/* A row for a connection of the operation's own only. */
bool is_open_call(const FaultRow &row)
{
    return row.call == "open" || row.call == "open_v2";
}

bool is_for_own_connection(const FaultRow &row)
{
    return is_open_call(row) || row.call == "close";
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

/* The connection that a caller passes, or none. */
class Passed
{
public:
    Passed(const HandlersStore &store, bool own)
    {
        if (!own)
            connection_.emplace(store.open());
    }

    [[nodiscard]] StoreConnection *get() { return connection_ ? &*connection_ : nullptr; }
    [[nodiscard]] bool is_open() const { return connection_ && connection_->is_open(); }

private:
    std::optional<CallersConnection> connection_;
};

Lines logged_lines(const std::string &message, const Lines &also_logged)
{
    Lines logged = {"3 " + message};

    logged.insert(logged.end(), also_logged.begin(), also_logged.end());
    return logged;
}

/* A transaction's own statement: whatever fails closes the connection. */
FaultTable transaction_rows(const std::string &verb, const Lines &left, const Lines &also_logged)
{
    const bool is_begin = verb == "BEGIN";
    const std::string message =
        std::string("Unable to ") + (is_begin ? "begin" : "end") + " sqlite transaction: ";

    return {
        prepare_row(verb + " TRANSACTION;", left, also_logged),
        {"step", logged_lines(message, also_logged), -1, Connection::closed, left},
    };
}

FaultTable rows_for(bool own, const FaultTable &table)
{
    FaultTable rows = table;

    if (!own)
        rows.erase(std::remove_if(rows.begin(), rows.end(), is_for_own_connection), rows.end());
    return rows;
}

} // namespace

void HandlersSweep::sweep_calls(const FaultTable &table, const Operation &operation)
{
    sweep_own_calls(table, operation);

    const FaultTable rows = rows_for(false, table);
    int nth = 0;

    for (const FaultRow &row : rows)
        fail_one_call(false, ++nth, row, operation);
    fail_no_call(false, rows, operation);
}

void HandlersSweep::sweep_own_calls(const FaultTable &table, const Operation &operation)
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

void HandlersSweep::fail_one_call(bool own, int nth, const FaultRow &row, const Operation &operation)
{
    SCOPED_TRACE((own ? "own connection, call " : "caller's connection, call ") + std::to_string(nth) + ": " +
                 row.call);
    fill();
    Passed passed(store, own);
    {
        SqliteFaults faults;

        faults.fail_call(nth);
        EXPECT_EQ(operation(passed.get()), row.result);
        EXPECT_TRUE(faults.failed_call() == row.call || begins_with(faults.failed_call(), row.call + ' '))
            << faults.failed_call();
        expect_lines(log.take(), row.logged);
        EXPECT_TRUE(faults.open_statements().empty());
        /* A close that fails is not examined: the connection is given up. */
        EXPECT_EQ(faults.open_connections().size(), row.call == "close" ? 1U : 0U);
        EXPECT_EQ(passed.is_open(), !own && row.connection == Connection::open);
    }
    EXPECT_EQ(left(), row.left);
}

void HandlersSweep::open_without_handle(int nth, const FaultRow &row, const Operation &operation)
{
    SCOPED_TRACE("no handle from call " + std::to_string(nth));
    fill();
    {
        SqliteFaults faults;

        faults.fail_call(nth);
        faults.open_without_handle();
        EXPECT_EQ(operation(nullptr), row.result);
        const int closed_before = nth > 1 ? 1 : 0;
        EXPECT_EQ(faults.count("close"), closed_before) << "there is nothing to close";
    }
    Lines expected = row.logged;
    ASSERT_FALSE(expected.empty());
    expected[0] += "general DB errror";
    EXPECT_EQ(log.take(), expected);
    EXPECT_EQ(left(), row.left);
}

void HandlersSweep::fail_no_call(bool own, const FaultTable &table, const Operation &operation)
{
    SCOPED_TRACE(own ? "own connection, no failure" : "caller's connection, no failure");
    const int prepared = static_cast<int>(std::count_if(
        table.begin(), table.end(), [](const FaultRow &row) { return begins_with(row.call, "prepare "); }));
    fill();
    Passed passed(store, own);
    {
        SqliteFaults faults;

        EXPECT_EQ(operation(passed.get()), 0);
        EXPECT_EQ(faults.calls_made(), static_cast<int>(table.size()));
        EXPECT_EQ(faults.count("busy_timeout 50"), faults.count("open") + faults.count("open_v2"));
        EXPECT_EQ(faults.count("finalize"), prepared);
        EXPECT_EQ(faults.count("reset"), 0);
        EXPECT_TRUE(faults.pauses().empty());
        EXPECT_TRUE(faults.open_connections().empty());
        EXPECT_TRUE(faults.open_statements().empty());
        EXPECT_EQ(passed.is_open(), !own);
    }
    EXPECT_TRUE(log.take().empty());
}

/* The numbers, among all that can fail, of the calls that are tried again, in a run that succeeds. */
std::vector<int> HandlersSweep::repeated_calls(bool own, const Operation &operation)
{
    std::vector<int> numbers;
    int number = 0;

    fill();
    Passed passed(store, own);
    SqliteFaults faults;

    EXPECT_EQ(operation(passed.get()), 0);
    for (const std::string &call : faults.calls()) {
        if (can_fail(call))
            number++;
        if (is_repeated(call))
            numbers.push_back(number);
    }
    EXPECT_EQ(number, faults.calls_made());
    return numbers;
}

void HandlersSweep::sweep_own_busy_calls(const std::vector<Lines> &left_after, const Operation &operation)
{
    const std::vector<int> numbers = repeated_calls(true, operation);

    ASSERT_EQ(numbers.size(), left_after.size());
    for (std::size_t i = 0; i < numbers.size(); i++)
        be_busy_at(numbers[i], left_after[i], operation);
}

void HandlersSweep::be_busy_at(int nth, const Lines &expected, const Operation &operation)
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
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(left(), expected);
}

void HandlersSweep::sweep_own_pauses(const std::vector<Lines> &left_after, const Operation &operation)
{
    sweep_pauses(true, left_after, operation);
}

void HandlersSweep::sweep_callers_pauses(const std::vector<Lines> &left_after, const Operation &operation)
{
    sweep_pauses(false, left_after, operation);
}

void HandlersSweep::sweep_pauses(bool own, const std::vector<Lines> &left_after, const Operation &operation)
{
    const std::vector<int> numbers = repeated_calls(own, operation);

    ASSERT_EQ(numbers.size(), left_after.size());
    for (std::size_t i = 0; i < numbers.size(); i++)
        fail_pause_at(own, numbers[i], left_after[i], operation);
}

void HandlersSweep::fail_pause_at(bool own, int nth, const Lines &expected, const Operation &operation)
{
    SCOPED_TRACE((own ? "own connection, pause after call " : "caller's connection, pause after call ") +
                 std::to_string(nth));
    fill();
    Passed passed(store, own);
    {
        SqliteFaults faults;

        faults.fail_call(nth, SQLITE_BUSY);
        faults.fail_pause(1);
        EXPECT_EQ(operation(passed.get()), -1);
        ASSERT_FALSE(faults.calls().empty());
        EXPECT_EQ(faults.calls().back(), "pause 10000") << "something was done after it";
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
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(left(), expected);
}

void HandlersSweep::sweep_pauses_to_commit(int calls_before, const Lines &before, const Lines &after,
                                           const Operation &operation)
{
    sweep_own_pauses(repeat({{calls_before, before}, {2, after}}), operation);
    sweep_callers_pauses(repeat({{calls_before, before}, {1, after}}), operation);
}

void HandlersSweep::fail_prepare_and_pause_of_close(int nth_prepare, int nth_pause, const std::string &sql,
                                                    const Operation &operation)
{
    fill();
    SqliteFaults faults;

    faults.fail_call(SqliteCall::prepare, nth_prepare);
    faults.be_busy(SqliteCall::close, 1);
    faults.fail_pause(nth_pause);
    EXPECT_EQ(operation(nullptr), -1);
    EXPECT_EQ(faults.calls().back(), "pause 10000");
    expect_lines(log.take(), {unprepared(sql, "")});
}

FaultRow HandlersSweep::open_row(const Lines &left, const Lines &also_logged) const
{
    return {"open", logged_lines("Unable to open database " + store.path() + ": ", also_logged), -1,
            Connection::closed, left};
}

FaultRow HandlersSweep::open_to_read_row(const Lines &left, const Lines &also_logged) const
{
    return {"open_v2", logged_lines("Unable to open database(readonly) " + store.path() + ": ", also_logged),
            -1, Connection::closed, left};
}

FaultRow prepare_row(const std::string &sql, const Lines &left, const Lines &also_logged)
{
    return {"prepare " + sql,
            logged_lines("Unable to prepare SQL statement for query '" + sql + "': ", also_logged), -1,
            Connection::closed, left};
}

FaultRow bind_row(const std::string &bound, const std::string &message, const Lines &left,
                  const Lines &also_logged)
{
    return {"bind " + bound, logged_lines(message, also_logged), -1, Connection::closed, left};
}

FaultRow step_row(const std::string &message, int result, const Lines &left, const Lines &also_logged)
{
    return {"step", logged_lines(message, also_logged), result, Connection::open, left};
}

FaultRow close_row(const Lines &left)
{
    return {"close", {}, 0, Connection::closed, left};
}

FaultTable statement_rows(const std::string &sql, const Bound &bound, const Lines &left,
                          const Lines &also_logged)
{
    const std::string kind = sql.substr(0, sql.find(' ')); /* SELECT, INSERT or DELETE */
    FaultTable rows = {prepare_row(sql, left, also_logged)};

    for (const auto &[name, value] : bound)
        rows.push_back(bind_row(std::to_string(rows.size()) + ' ' + value,
                                "Unable to bind parameter '" + name + "' to the '" + kind + "' query: ", left,
                                also_logged));
    return rows;
}

FaultTable begin_rows(const Lines &left, const Lines &also_logged)
{
    return transaction_rows("BEGIN", left, also_logged);
}

FaultTable end_rows(const Lines &left, const Lines &also_logged)
{
    return transaction_rows("END", left, also_logged);
}

std::vector<Lines> repeat(const std::vector<std::pair<int, Lines>> &runs)
{
    std::vector<Lines> all;

    for (const auto &[times, lines] : runs)
        all.insert(all.end(), static_cast<std::size_t>(times), lines);
    return all;
}

FaultTable operator+(FaultTable left, const FaultTable &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

} // namespace kolmo::testing
