/*
 * store_op: the steps that every operation on a store is made of.
 *
 * with_store gives an operation its connection, StoreOp its steps.  A step that fails reports and finalizes
 * its statement before it closes the connection, the caller's too: closing overwrites SQLite's text, and a
 * statement that is not finalized keeps the closing busy for hours.  A step whose pause failed abandons
 * the connection instead and does nothing more.  Either ends the operation: its further steps do nothing.
 * What a row that the store refuses means is the operation's affair.
 *
 * Texts are bound without a copy: their owners live until the step is done.
 */
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <utility>

#include <sqlite3.h>

#include "common/owned.h"
#include "responder_store/kit/busy_retry.h"
#include "responder_store/kit/checked_text.h"
#include "responder_store/kit/store_connection.h"

namespace kolmo
{

/* One parameter of a statement: its value, and the message when it cannot be bound. */
struct Bind {
    enum class Kind { text, integer } kind;
    const char *text;
    int number;
    TextFormat<1> message;
};

/* A text, bound with its length and without a copy; null is bound as SQL NULL, for the table to refuse. */
constexpr Bind bind_text(const char *value, TextFormat<1> message)
{
    return {Bind::Kind::text, value, 0, message};
}

constexpr Bind bind_int(int value, TextFormat<1> message)
{
    return {Bind::Kind::integer, nullptr, value, message};
}

using SqliteText = std::unique_ptr<char, Release<sqlite3_free>>;

/* A statement on a connection, finalized at the end of its scope unless the connection was abandoned. */
class Statement
{
public:
    explicit Statement(const StoreConnection *connection) noexcept : connection_(connection) {}
    Statement(Statement &&) = delete;
    ~Statement()
    {
        if (!connection_->is_abandoned())
            finalize();
    }

    [[nodiscard]] sqlite3_stmt *get() const noexcept { return handle_; }
    [[nodiscard]] sqlite3_stmt **receive() noexcept { return &handle_; }
    void finalize() noexcept { (void)sqlite3_finalize(std::exchange(handle_, nullptr)); }

private:
    const StoreConnection *connection_;
    sqlite3_stmt *handle_ = nullptr;
};

class StoreOp
{
public:
    explicit StoreOp(StoreConnection *connection) noexcept : connection_(connection) {}

    [[nodiscard]] StoreConnection *connection() const noexcept { return connection_; }
    [[nodiscard]] const char *detail() const noexcept { return connection_->detail(); }

    /* How it stands: done while nothing has failed. */
    [[nodiscard]] Ending ending() const noexcept
    {
        return connection_->is_abandoned() ? Ending::abandoned : ending_;
    }

    /* Begin and end the transaction.  The ending so far. */
    Ending begin();
    [[nodiscard]] Ending end();

    /*
     * Prepares `sql`, binds `binds` to its parameters in order, makes one step, finalizes.  False when the
     * store refused the step: nothing is logged then, and the operation has not ended.
     */
    template <std::size_t Parameters>
    [[nodiscard]] bool run(Sql<Parameters> sql, const std::array<Bind, Parameters> &binds)
    {
        return run_statement(sql.get(), binds);
    }

    /* sqlite3_exec with its code in `rc` and SQLite's text, or null, in `error`.  Logs and closes nothing. */
    [[nodiscard]] Ending exec(const char *script, int *rc, SqliteText *error);

private:
    friend class Rows;

    [[nodiscard]] bool run_statement(const char *sql, std::span<const Bind> binds);
    void run_transaction_statement(const char *sql, TextFormat<1> message);
    [[nodiscard]] bool prepare(const char *sql, std::span<const Bind> binds, Statement *statement);
    [[nodiscard]] int step(const Statement &statement);
    void fail_and_close();

    StoreConnection *connection_;
    Ending ending_ = Ending::done;
};

/*
 * The rows of a select.
 *
 *     Rows rows(op, select_sql, key);
 *
 *     while (rows.next())
 *         ... rows.text(0) ...
 *     return rows.finish("Unable to select ...: %s");
 */
class Rows
{
public:
    template <std::size_t Parameters>
    Rows(StoreOp &op, Sql<Parameters> sql, const std::array<Bind, Parameters> &binds)
        : op_(op), statement_(op.connection())
    {
        (void)op_.prepare(sql.get(), binds, &statement_); /* the operation remembers what it came to */
    }

    /* Goes to the next row, or to the first.  False after the last, and when the operation has failed. */
    [[nodiscard]] bool next();

    /* A column's text, borrowed until the next row; null for SQL NULL. */
    [[nodiscard]] const char *text(int column) const noexcept;
    [[nodiscard]] int integer(int column) const noexcept;

    /* The operation's ending; failed, with `message` logged, when the rows did not run to their end. */
    [[nodiscard]] Ending finish(TextFormat<1> message) const;

private:
    StoreOp &op_;
    Statement statement_;
    int code_ = SQLITE_OK; /* of the latest step */
};

/*
 * Runs `body` on the caller's connection, or, when that is null, on one that is opened here and closed
 * again.  The body's ending, failed when the store could not be opened (reported), or abandoned when a pause
 * failed, at once for a connection that is abandoned already.
 */
template <typename Body>
[[nodiscard]] Ending with_store(StoreConnection *connection, const char *path, OpenMode mode, Body &&body)
{
    StoreConnection own;

    if (connection == nullptr) {
        const Ending opened = open_store(&own, path, mode);

        if (opened != Ending::done)
            return opened;
    } else if (connection->is_abandoned()) {
        return Ending::abandoned;
    }

    StoreOp op(connection != nullptr ? connection : &own);
    const Ending ending = body(op);

    return close_with_retry(&own) == Ending::done ? ending : Ending::abandoned;
}

/*
 * Runs `sql` once for each of `rows` rows, within a transaction of the caller's: `binds_of(i)` gives row
 * i's parameters, `refused()` reports a row that the store did not take.  A refused row costs that row
 * only: the rest is still written.
 */
template <std::size_t Parameters, typename BindsOf, typename Refused>
void run_rows(StoreOp &op, Sql<Parameters> sql, int rows, BindsOf &&binds_of, Refused &&refused)
{
    for (int i = 0; i < rows && op.ending() == Ending::done; i++) {
        if (!op.run(sql, binds_of(i)))
            refused();
    }
}

} // namespace kolmo
