/*
 * store_op: the steps that every operation on a store is made of.
 *
 * with_store gives an operation its connection, StoreOp its steps.  A step that fails reports, closes the
 * connection, the caller's too, and returns -1, its statement finalized: closing overwrites SQLite's text,
 * and a statement that is not finalized keeps the closing busy for hours.  A step whose pause failed abandons
 * its statement instead and does nothing more.  What a statement's own result means is the operation's
 * affair: run and select hand it back.
 *
 * Texts are bound without a copy: their owners live until the step is done.
 */
#ifndef KOLMO_RESPONDER_STORE_STORE_OP_H
#define KOLMO_RESPONDER_STORE_STORE_OP_H

#include <memory>
#include <span>
#include <utility>

#include <sqlite3.h>

#include "responder_store/busy_retry.h"
#include "responder_store/store_connection.h"
#include "responder_store/store_message.h"

namespace kolmo
{

/* One parameter of a statement: its value, and the message when it cannot be bound. */
struct Bind {
    enum class Kind { text, integer } kind;
    const char *text;
    int number;
    Message<1> message;
};

/* A text, bound with its length and without a copy; null is bound as SQL NULL, for the table to refuse. */
constexpr Bind bind_text(const char *value, Message<1> message)
{
    return {Bind::Kind::text, value, 0, message};
}

constexpr Bind bind_int(int value, Message<1> message)
{
    return {Bind::Kind::integer, nullptr, value, message};
}

/* A prepared statement, finalized at the end of its scope unless it was abandoned. */
class Statement
{
public:
    Statement() noexcept = default;
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;
    ~Statement() { finalize(); }

    [[nodiscard]] sqlite3_stmt *get() const noexcept { return handle_; }
    [[nodiscard]] sqlite3_stmt **receive() noexcept { return &handle_; }
    void finalize() noexcept { (void)sqlite3_finalize(std::exchange(handle_, nullptr)); }

    /* After a failed pause: nothing is finalized, so the handle is given up where it stands. */
    void abandon() noexcept { handle_ = nullptr; }

private:
    sqlite3_stmt *handle_ = nullptr;
};

struct FreeSqliteText {
    void operator()(char *text) const noexcept { sqlite3_free(text); }
};
using SqliteText = std::unique_ptr<char, FreeSqliteText>;

class StoreOp
{
public:
    explicit StoreOp(StoreConnection *connection) noexcept : connection_(connection) {}

    [[nodiscard]] StoreConnection *connection() const noexcept { return connection_; }
    [[nodiscard]] const char *detail() const noexcept { return connection_->detail(); }

    /* Begin and end the transaction.  0, or -1 after the failure was reported, or a pause failed. */
    [[nodiscard]] int begin();
    [[nodiscard]] int end();

    /*
     * Prepares `sql`, binds `binds` to its parameters in order, makes one step, finalizes.
     * 0 with the step's code in `step` (nothing is logged, whatever it is), or -1 as begin().
     */
    [[nodiscard]] int run(const char *sql, std::span<const Bind> binds, int *step);

    /*
     * The same for a statement with rows: `row` is called with the statement for each of them and returns
     * 0 to go on.  0 with the last step's code in `step`: SQLITE_DONE after the last row, SQLITE_ROW when
     * `row` ended it.
     */
    template <typename Row>
    [[nodiscard]] int select(const char *sql, std::span<const Bind> binds, int *step, Row &&row);

    /*
     * sqlite3_exec with its code in `rc` and SQLite's text, or null, in `error`.  0, or -1 when a pause
     * failed.  Logs and closes nothing.
     */
    [[nodiscard]] int exec(const char *script, int *rc, SqliteText *error);

private:
    [[nodiscard]] int prepare(const char *sql, std::span<const Bind> binds, Statement *statement);
    [[nodiscard]] int step_once(Statement *statement, int *step);
    [[nodiscard]] int run_transaction_statement(const char *sql, Message<1> message);
    [[nodiscard]] int finalize_and_close(Statement *statement);

    StoreConnection *connection_;
};

template <typename Row>
int StoreOp::select(const char *sql, std::span<const Bind> binds, int *step, Row &&row)
{
    Statement statement;

    if (prepare(sql, binds, &statement) != 0)
        return -1;
    do {
        if (step_once(&statement, step) != 0)
            return -1;
    } while (*step == SQLITE_ROW && row(statement.get()) == 0);
    return 0;
}

/*
 * Runs `body` on the caller's connection, or, when that is null, on one that is opened here and closed
 * again.  Returns the body's result, or -1 when the store could not be opened (reported) or a pause
 * failed: a connection of our own then stays open, as that rule wants it.
 */
template <typename Body>
[[nodiscard]] int with_store(StoreConnection *connection, const char *path, OpenMode mode, Body &&body)
{
    if (connection != nullptr) {
        StoreOp op(connection);

        return body(op);
    }

    StoreConnection own;
    const PauseWatch pauses;

    if (open_store(&own, path, mode) != 0)
        return -1;

    StoreOp op(&own);
    const int result = body(op);

    if (!pauses.failed() && close_with_retry(&own) == 0)
        return result;
    (void)own.release();
    return -1;
}

/*
 * Runs `sql` once for each of `rows` rows, within a transaction of the caller's: `binds_of(i)` gives row
 * i's parameters, `refused()` reports a row that the store did not take.  A refused row costs that row
 * only: the rest is still written and the result stays 0.  -1 as run().
 */
template <typename BindsOf, typename Refused>
[[nodiscard]] int run_rows(StoreOp &op, const char *sql, int rows, BindsOf &&binds_of, Refused &&refused)
{
    for (int i = 0; i < rows; i++) {
        const auto binds = binds_of(i);
        int step;

        if (op.run(sql, binds, &step) != 0)
            return -1;
        if (step != SQLITE_DONE)
            refused();
    }
    return 0;
}

} // namespace kolmo

#endif
