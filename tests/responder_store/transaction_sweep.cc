#include "tests/responder_store/transaction_sweep.h"

namespace kolmo::testing
{

namespace
{

FaultRow prepare_row(const std::string &sql, const Lines &before)
{
    return {"prepare " + sql, "Unable to prepare SQL statement for query '" + sql + "': ", -1, Left::closed,
            before};
}

std::vector<FaultRow> call_rows(const std::vector<SweptStatement> &statements, const Lines &before)
{
    std::vector<FaultRow> rows = {
        prepare_row("BEGIN TRANSACTION;", before),
        {"step", "Unable to begin sqlite transaction: ", -1, Left::closed, before},
    };

    for (const SweptStatement &statement : statements) {
        int number = 0;

        rows.push_back(prepare_row(statement.sql, before));
        for (const auto &[name, value] : statement.bound)
            rows.push_back({"bind " + std::to_string(++number) + ' ' + value,
                            "Unable to bind parameter " + name + ": ", -1, Left::closed, before});
        rows.push_back(statement.refused);
    }
    rows.push_back(prepare_row("END TRANSACTION;", before));
    rows.push_back({"step", "Unable to end sqlite transaction: ", -1, Left::closed, before});
    return rows;
}

/* Of each statement the prepare and the step are tried again; the first step begins, the last one commits. */
std::vector<PauseRow> pause_rows(const std::vector<SweptStatement> &statements, const Lines &before,
                                 const Lines &after)
{
    std::vector<PauseRow> rows = {
        {"BEGIN TRANSACTION;", Left::open, before},
        {"BEGIN TRANSACTION;", Left::in_transaction, before},
    };

    for (const SweptStatement &statement : statements)
        rows.insert(rows.end(), 2, {statement.sql, Left::in_transaction, before});
    rows.push_back({"END TRANSACTION;", Left::in_transaction, before});
    rows.push_back({"END TRANSACTION;", Left::open, after});
    return rows;
}

} // namespace

void sweep_transaction(const StoreSweep &sweep, const std::vector<SweptStatement> &statements,
                       const Lines &before, const Lines &after)
{
    sweep.fail_each_call(call_rows(statements, before));
    sweep.fail_each_pause(pause_rows(statements, before, after));
}

} // namespace kolmo::testing
