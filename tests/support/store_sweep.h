/*
 * store_sweep: every failure that an operation on the responder store can meet, one after the other.
 *
 * A sweep runs the operation once for each of its SQLite calls, in a fresh store each time, and lets the n-th
 * call fail (or the n-th pause); what comes of it is compared with row n of a table.  A last run, in which
 * nothing fails, must succeed with exactly as many calls as the table has rows, so that a step that is added,
 * left out or moved breaks the table.  The table is the one for a connection of the caller's.  For one of the
 * operation's own it follows from it: an open before, a close after, and nothing left open.
 */
#ifndef KOLMO_TESTS_SUPPORT_STORE_SWEEP_H
#define KOLMO_TESTS_SUPPORT_STORE_SWEEP_H

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "responder_store/kit/store_connection.h"
#include "tests/support/responder_store_fixture.h"

namespace kolmo::testing
{

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

class StoreSweep
{
public:
    using Operation = std::function<int(StoreConnection *)>;
    using Setup = std::function<void(const ResponderStore &)>;

    /* An operation that succeeds with 0 and these rows, in a store that was set up so. */
    StoreSweep(
        Operation operation, Lines rows_after, Setup setup = [](const ResponderStore &) {})
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

} // namespace kolmo::testing

#endif
