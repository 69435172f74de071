/*
 * store_sweep: every failure that an operation on a store can meet, one after the other.
 *
 * A sweep runs the operation again and again, each time on a store filled anew, over a connection of the
 * operation's own and over a caller's, and compares what came of it with a table: row n says what happens
 * when the nth SQLite call fails.  After the last row the operation must succeed, with exactly as many calls
 * as there are rows, so that a step that is added, contents out or moved breaks the table.  The table is the
 * one for the operation's own connection; over a caller's its opens and closes do not come.
 *
 * A fixture that derives from its store's and from this says what to fill in, and what to look at afterwards:
 *
 *     class InsertFaults : public HandlersStoreTest, protected StoreSweep
 */
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "responder_store/kit/store_connection.h"
#include "tests/support/log_capture.h"
#include "tests/support/sqlite_faults.h"
#include "tests/support/store_file.h"

namespace kolmo::testing
{

/* In which state an operation leaves its caller's connection. */
enum class Connection { closed, open, in_transaction };

struct FaultRow {
    std::string call; /* as SqliteFaults records it, an open without the path */
    Lines logged;     /* a line that ends in ": " goes on with SQLite's text */
    int result;
    Connection connection;
    Lines contents; /* what there is afterwards, see StoreSweep::contents */
};

using FaultTable = std::vector<FaultRow>;

class StoreSweep
{
protected:
    using Operation = std::function<int(StoreConnection *connection)>;

    StoreSweep(const StoreFile &file, LogCapture &log) : file_(file), log_(log) {}
    StoreSweep(const StoreSweep &) = delete;
    StoreSweep &operator=(const StoreSweep &) = delete;
    virtual ~StoreSweep() = default;

    /* What each run starts with, and what it leaves behind. */
    virtual void fill() = 0;
    [[nodiscard]] virtual Lines contents() = 0;

    /* Fails each call of the table, over both connections; or over one for an operation that knows no other.
     */
    void sweep_calls(const FaultTable &table, const Operation &operation);
    void sweep_own_calls(const FaultTable &table, const Operation &operation);
    void sweep_callers_calls(const FaultTable &table, const Operation &operation);

    /*
     * Makes each call that is tried again busy, twice: it is made three times, with pauses of 10 and 20
     * microseconds, and the operation succeeds.  `contents_after[n - 1]` is what there is when the nth was
     * busy.
     */
    void sweep_busy_calls(const std::vector<Lines> &contents_after, const Operation &operation);

    /*
     * Makes each of them busy once and fails the pause after it has come through: nothing is said, finalized,
     * ended or closed any more, and the caller's connection is abandoned.
     */
    void sweep_pauses(const std::vector<Lines> &contents_after, const Operation &operation);
    void sweep_own_pauses(const std::vector<Lines> &contents_after, const Operation &operation);
    void sweep_callers_pauses(const std::vector<Lines> &contents_after, const Operation &operation);

    /*
     * Both for an operation that makes so many calls which are tried again, and then one that commits: they
     * leave `before`, that one and what follows `after`.
     */
    void sweep_busy_calls_and_pauses(int calls_before, const Lines &before, const Lines &after,
                                     const Operation &operation);

    /*
     * Fails the nth prepare, which is reported so, and the nth pause, that of the close which follows: from
     * there on nothing is done and nothing is said.
     */
    void fail_prepare_and_pause_of_close(int nth_prepare, int nth_pause, const Operation &operation);

    /* The open of the operation's own connection. */
    [[nodiscard]] FaultTable open_row(const Lines &contents, const Lines &also_logged = {}) const;
    [[nodiscard]] FaultTable open_to_read_row(const Lines &contents, const Lines &also_logged = {}) const;

private:
    struct RepeatedCall {
        int number; /* among all that can fail */
        bool is_close;
    };

    void fail_one_call(bool own, int nth, const FaultRow &row, const Operation &operation);
    void open_without_handle(int nth, const FaultRow &row, const Operation &operation);
    void fail_no_call(bool own, const FaultTable &table, const Operation &operation);
    [[nodiscard]] std::vector<RepeatedCall> repeated_calls(bool own, const Operation &operation);
    void fail_pauses(bool own, const std::vector<Lines> &contents_after, const Operation &operation);
    void be_busy_at(int nth, const Lines &expected, const Operation &operation);
    void fail_pause_at(bool own, int nth, const Lines &expected, const Operation &operation);

    const StoreFile &file_;
    LogCapture &log_;
};

/*
 * Rows for the common calls, as tables of one; a message is what is logged at priority 3, up to SQLite's
 * text.
 */
[[nodiscard]] FaultTable prepare_row(const std::string &sql, const Lines &contents,
                                     const Lines &also_logged = {});
[[nodiscard]] FaultTable close_row(const Lines &contents);

/* A step, or another call, that fails and does not close the connection. */
[[nodiscard]] FaultTable step_row(const std::string &message, int result, const Lines &contents,
                                  const Lines &also_logged = {});
[[nodiscard]] FaultTable open_after(const std::string &call, const std::string &message, int result,
                                    Connection connection, const Lines &contents,
                                    const Lines &also_logged = {});

/*
 * A statement's prepare and then its parameters: for each its value, and the message when it cannot be
 * bound.
 */
using Bound = std::vector<std::pair<std::string, std::string>>;
[[nodiscard]] FaultTable statement_rows(const std::string &sql, const Bound &bound, const Lines &contents,
                                        const Lines &also_logged = {});

/* The two statements of a transaction. */
[[nodiscard]] FaultTable begin_rows(const Lines &contents, const Lines &also_logged = {});
[[nodiscard]] FaultTable end_rows(const Lines &contents, const Lines &also_logged = {});

/* The same lines so many times, then the next. */
[[nodiscard]] std::vector<Lines> repeat(const std::vector<std::pair<int, Lines>> &runs);

/* One table after the other. */
[[nodiscard]] FaultTable operator+(FaultTable first, const FaultTable &second);

} // namespace kolmo::testing
