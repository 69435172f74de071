#include "responder_store/responder_db.h"

#include <array>

#include "responder_store/responder_store_op.h"

namespace kolmo
{

int responder_db_add_extra_headers(StoreConnection *connection, const char *const *names,
                                   const char *const *values, int count)
{
    return to_result(with_responder_store(connection, [&](StoreOp &op) {
        const auto row = [&](int i) {
            return std::array{
                bind_text(names[i], "Unable to bind parameter name: %s"),
                bind_text(values[i], "Unable to bind parameter value: %s"),
            };
        };
        const auto refused = [&] {
            log_failure("Unable to add autoresponder extra headers: %s", op.detail());
        };

        if (count == 0)
            return op.ending();
        op.begin();
        run_rows<2>(op, "REPLACE INTO extra_headers VALUES (?, ?  );", count, row, refused);
        return op.end();
    }));
}

int responder_db_remove_extra_headers(StoreConnection *connection)
{
    int rc = SQLITE_OK;
    const Ending ending = with_responder_store(connection, [&](StoreOp &op) {
        SqliteText error;

        if (op.exec("DELETE FROM extra_headers", &rc, &error) == Ending::done && rc != SQLITE_OK) {
            error.reset(); /* unread: the log takes the connection's own text */
            log_failure("Unable to remove autoresponder extra headers: %s", op.detail());
        }
        return op.ending();
    });

    return ending == Ending::done ? rc : to_result(ending);
}

} // namespace kolmo
