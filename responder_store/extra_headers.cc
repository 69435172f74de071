#include "responder_store/responder_db.h"

#include <array>

#include "responder_store/responder_store_op.h"

namespace kolmo
{

int responder_db_add_extra_headers(StoreConnection *connection, const char *const *names,
                                   const char *const *values, int count)
{
    return with_responder_store(connection, [&](StoreOp &op) {
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
            return 0;
        if (op.begin() != 0 ||
            run_rows(op, "REPLACE INTO extra_headers VALUES (?, ?  );", count, row, refused) != 0)
            return -1;
        return op.end();
    });
}

int responder_db_remove_extra_headers(StoreConnection *connection)
{
    return with_responder_store(connection, [](StoreOp &op) {
        SqliteText error; /* released unread: the log takes the connection's own text */
        int rc;

        if (op.exec("DELETE FROM extra_headers", &rc, &error) != 0)
            return -1;
        if (rc != SQLITE_OK)
            log_failure("Unable to remove autoresponder extra headers: %s", op.detail());
        return rc;
    });
}

} // namespace kolmo
