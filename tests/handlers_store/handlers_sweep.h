/*
 * handlers_sweep: every SQLite call of an operation on the handlers store fails once, and every pause.
 *
 * A sweep runs the operation again and again, each time on a store filled anew, over a connection of the
 * operation's own and over a caller's, and compares what came of it with a table: row n says what happens
 * when the nth call fails.  After the last row the operation must succeed, with exactly as many calls as
 * there are rows, so that a step that is added, left out or moved breaks the table.
 *
 * Unlike store_sweep it knows operations that read rows, that open twice and that report twice.
 */
#ifndef KOLMO_TESTS_HANDLERS_STORE_HANDLERS_SWEEP_H
#define KOLMO_TESTS_HANDLERS_STORE_HANDLERS_SWEEP_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "responder_store/kit/store_connection.h"
#include "tests/support/handlers_store_fixture.h"
#include "tests/support/sqlite_faults.h"

namespace kolmo::testing
{

/* What becomes of the connection at hand, the caller's or not, before the operation goes on or returns. */
enum class Connection { open, closed };

struct FaultRow {
    std::string call; /* as SqliteFaults records it, an open without the path */
    Lines logged;     /* a line that ends in ": " goes on with SQLite's text */
    int result;
    Connection connection;
    Lines left; /* what there is afterwards, see HandlersSweep::left */
};

using FaultTable = std::vector<FaultRow>;

class HandlersSweep : public HandlersStoreTest
{
protected:
    using Operation = std::function<int(StoreConnection *connection)>;

    /* What each run starts with, and what it leaves behind: the handlers, or, for a select, its list. */
    virtual void fill() = 0;
    [[nodiscard]] virtual Lines left() { return store.handlers(); }

    /* Fails each call of the table.  Rows of opens and closes are for the operation's own connection only. */
    void sweep_calls(const FaultTable &table, const Operation &operation);

    /* The same for an operation that takes no connection. */
    void sweep_own_calls(const FaultTable &table, const Operation &operation);

    /*
     * Makes each call that is tried again busy, twice: it is made three times, with pauses of 10 and 20
     * microseconds, and the operation succeeds.  `left_after[n - 1]` is what is left when the nth was busy.
     */
    void sweep_own_busy_calls(const std::vector<Lines> &left_after, const Operation &operation);

    /*
     * Makes each of them busy once and fails the pause after it has come through: nothing is said, and
     * nothing is done any more.
     */
    void sweep_own_pauses(const std::vector<Lines> &left_after, const Operation &operation);
    void sweep_callers_pauses(const std::vector<Lines> &left_after, const Operation &operation);

    /*
     * Both of them for an operation that makes so many calls which are tried again, and then one that
     * commits: they leave `before`, that one `after`, and so does the close of the operation's own
     * connection.
     */
    void sweep_pauses_to_commit(int calls_before, const Lines &before, const Lines &after,
                                const Operation &operation);

    /*
     * Fails the nth prepare, which is reported so, and the nth pause, that of the close which follows: from
     * there on nothing is done and nothing is said.
     */
    void fail_prepare_and_pause_of_close(int nth_prepare, int nth_pause, const std::string &sql,
                                         const Operation &operation);

    /* The open of the operation's own connection. */
    [[nodiscard]] FaultRow open_row(const Lines &left, const Lines &also_logged = {}) const;
    [[nodiscard]] FaultRow open_to_read_row(const Lines &left, const Lines &also_logged = {}) const;

private:
    void fail_one_call(bool own, int nth, const FaultRow &row, const Operation &operation);
    void open_without_handle(int nth, const FaultRow &row, const Operation &operation);
    void fail_no_call(bool own, const FaultTable &table, const Operation &operation);
    [[nodiscard]] std::vector<int> repeated_calls(bool own, const Operation &operation);
    void be_busy_at(int nth, const Lines &expected, const Operation &operation);
    void sweep_pauses(bool own, const std::vector<Lines> &left_after, const Operation &operation);
    void fail_pause_at(bool own, int nth, const Lines &expected, const Operation &operation);
};

/* Rows for the common calls; a message is what is logged at priority 3, up to SQLite's text. */
[[nodiscard]] FaultRow prepare_row(const std::string &sql, const Lines &left, const Lines &also_logged = {});
[[nodiscard]] FaultRow bind_row(const std::string &bound, const std::string &message, const Lines &left,
                                const Lines &also_logged = {});
[[nodiscard]] FaultRow close_row(const Lines &left);

/* A step that fails and does not close the connection. */
[[nodiscard]] FaultRow step_row(const std::string &message, int result, const Lines &left,
                                const Lines &also_logged = {});

/* A statement's prepare and then its parameters, each with the name by which it is reported and its value. */
using Bound = std::vector<std::pair<std::string, std::string>>;
[[nodiscard]] FaultTable statement_rows(const std::string &sql, const Bound &bound, const Lines &left,
                                        const Lines &also_logged = {});

/* The two statements of a transaction. */
[[nodiscard]] FaultTable begin_rows(const Lines &left, const Lines &also_logged = {});
[[nodiscard]] FaultTable end_rows(const Lines &left, const Lines &also_logged = {});

/* The same lines so many times, then the next. */
[[nodiscard]] std::vector<Lines> repeat(const std::vector<std::pair<int, Lines>> &runs);

/* One table after the other. */
[[nodiscard]] FaultTable operator+(FaultTable left, const FaultTable &right);

} // namespace kolmo::testing

#endif
