#include "responder_store/kit/store_op.h"

#include <cstring>

namespace kolmo
{

namespace
{

int bind_one(sqlite3_stmt *statement, int index, const Bind &bind)
{
    if (bind.kind == Bind::Kind::integer)
        return sqlite3_bind_int(statement, index, bind.number);

    const int length = bind.text != nullptr ? static_cast<int>(std::strlen(bind.text)) : 0;

    return sqlite3_bind_text(statement, index, bind.text, length, SQLITE_STATIC);
}

/* The number of those that could be bound, from the first on. */
std::size_t bind_all(sqlite3_stmt *statement, std::span<const Bind> binds)
{
    std::size_t bound = 0;

    while (bound < binds.size() &&
           bind_one(statement, static_cast<int>(bound) + 1, binds[bound]) == SQLITE_OK)
        bound++;
    return bound;
}

} // namespace

Ending StoreOp::begin()
{
    run_transaction_statement("BEGIN TRANSACTION;", "Unable to begin sqlite transaction: %s");
    return ending();
}

Ending StoreOp::end()
{
    run_transaction_statement("END TRANSACTION;", "Unable to end sqlite transaction: %s");
    return ending();
}

void StoreOp::run_transaction_statement(const char *sql, TextFormat<1> message)
{
    if (run_statement(sql, {}))
        return;
    log_failure(message, detail());
    fail_and_close();
}

bool StoreOp::run_statement(const char *sql, std::span<const Bind> binds)
{
    Statement statement(connection_);

    if (!prepare(sql, binds, &statement))
        return true;

    const int code = step(statement);

    return code == SQLITE_DONE || ending() != Ending::done;
}

Ending StoreOp::exec(const char *script, int *rc, SqliteText *error)
{
    *rc = SQLITE_MISUSE; /* what SQLite calls the use of a connection that is not open */
    if (!connection_->is_open())
        return ending();
    if (retry_while_busy(rc, [&] {
            char *text = nullptr;
            const int attempt = sqlite3_exec(connection_->get(), script, nullptr, nullptr, &text);

            error->reset(text);
            return attempt;
        }) != Ending::done)
        connection_->abandon();
    return ending();
}

/* Nothing is cached: a statement that is used for several rows is prepared anew for each of them. */
bool StoreOp::prepare(const char *sql, std::span<const Bind> binds, Statement *statement)
{
    int rc = SQLITE_MISUSE;

    if (ending() != Ending::done)
        return false;
    if (connection_->is_open() && retry_while_busy(&rc, [&] {
                                      return sqlite3_prepare_v2(connection_->get(), sql, -1,
                                                                statement->receive(), nullptr);
                                  }) != Ending::done) {
        connection_->abandon();
        return false;
    }
    if (rc != SQLITE_OK)
        log_failure("Unable to prepare SQL statement for query '%s': %s", sql, detail());
    else if (const std::size_t bound = bind_all(statement->get(), binds); bound < binds.size())
        log_failure(binds[bound].message, detail());
    else
        return true;
    statement->finalize();
    fail_and_close();
    return false;
}

/* The code of one step; the connection is abandoned when a pause failed. */
int StoreOp::step(const Statement &statement)
{
    int code = SQLITE_OK;

    if (retry_while_busy(&code, [&] {
            const int attempt = sqlite3_step(statement.get());

            if (attempt == SQLITE_BUSY)
                (void)sqlite3_reset(statement.get());
            return attempt;
        }) != Ending::done)
        connection_->abandon();
    return code;
}

/* After the message, whose detail closing overwrites, and with the statement finalized. */
void StoreOp::fail_and_close()
{
    ending_ = close_with_retry(connection_) == Ending::done ? Ending::failed : Ending::abandoned;
}

bool Rows::next()
{
    if (op_.ending() != Ending::done)
        return false;
    code_ = op_.step(statement_);
    return code_ == SQLITE_ROW && op_.ending() == Ending::done;
}

const char *Rows::text(int column) const noexcept
{
    return reinterpret_cast<const char *>(sqlite3_column_text(statement_.get(), column));
}

int Rows::integer(int column) const noexcept
{
    return sqlite3_column_int(statement_.get(), column);
}

Ending Rows::finish(TextFormat<1> message) const
{
    if (op_.ending() != Ending::done || code_ == SQLITE_DONE)
        return op_.ending();
    log_failure(message, op_.detail());
    return Ending::failed;
}

} // namespace kolmo
