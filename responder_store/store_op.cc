#include "responder_store/store_op.h"

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

} // namespace

int StoreOp::begin()
{
    return run_transaction_statement("BEGIN TRANSACTION;", "Unable to begin sqlite transaction: %s");
}

int StoreOp::end()
{
    return run_transaction_statement("END TRANSACTION;", "Unable to end sqlite transaction: %s");
}

int StoreOp::run_transaction_statement(const char *sql, Message<1> message)
{
    int step;

    if (run(sql, {}, &step) != 0)
        return -1;
    if (step == SQLITE_DONE)
        return 0;
    log_failure(message, detail());
    (void)close_with_retry(connection_);
    return -1;
}

int StoreOp::run(const char *sql, std::span<const Bind> binds, int *step)
{
    Statement statement;

    if (prepare(sql, binds, &statement) != 0)
        return -1;
    return step_once(&statement, step);
}

int StoreOp::exec(const char *script, int *rc, SqliteText *error)
{
    return retry_while_busy(rc, [&] {
        char *text = nullptr;
        const int attempt = sqlite3_exec(connection_->get(), script, nullptr, nullptr, &text);

        error->reset(text);
        return attempt;
    });
}

/* Nothing is cached: a statement that is used for several rows is prepared anew for each of them. */
int StoreOp::prepare(const char *sql, std::span<const Bind> binds, Statement *statement)
{
    int rc;

    if (retry_while_busy(&rc, [&] {
            return sqlite3_prepare_v2(connection_->get(), sql, -1, statement->receive(), nullptr);
        }) != 0) {
        statement->abandon();
        return -1;
    }
    if (rc != SQLITE_OK) {
        log_failure("Unable to prepare SQL statement for query '%s': %s", sql, detail());
        return finalize_and_close(statement);
    }

    int index = 0;

    for (const Bind &bind : binds) {
        if (bind_one(statement->get(), ++index, bind) == SQLITE_OK)
            continue;
        log_failure(bind.message, detail());
        return finalize_and_close(statement);
    }
    return 0;
}

int StoreOp::step_once(Statement *statement, int *step)
{
    if (retry_while_busy(step, [&] {
            const int attempt = sqlite3_step(statement->get());

            if (attempt == SQLITE_BUSY)
                (void)sqlite3_reset(statement->get());
            return attempt;
        }) == 0)
        return 0;
    statement->abandon();
    return -1;
}

int StoreOp::finalize_and_close(Statement *statement)
{
    statement->finalize();
    (void)close_with_retry(connection_);
    return -1;
}

} // namespace kolmo
