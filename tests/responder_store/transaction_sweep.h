/*
 * transaction_sweep: a sweep of an operation that runs its statements inside a transaction.
 *
 * BEGIN and END fail alike for all of them, and so do the preparing of a statement and the binding of its
 * parameters; what becomes of a statement that is refused is each operation's own.
 */
#ifndef KOLMO_TESTS_RESPONDER_STORE_TRANSACTION_SWEEP_H
#define KOLMO_TESTS_RESPONDER_STORE_TRANSACTION_SWEEP_H

#include <string>
#include <utility>
#include <vector>

#include "tests/support/store_sweep.h"

namespace kolmo::testing
{

struct SweptStatement {
    std::string sql;

    /* Its parameters in their order: the name by which each is reported, and its value. */
    std::vector<std::pair<std::string, std::string>> bound;

    FaultRow refused; /* what its step comes to */
};

/*
 * Lets each call and each pause of the operation fail that runs these statements.  The store holds `before`
 * until the transaction is committed, and then `after`.
 */
void sweep_transaction(const StoreSweep &sweep, const std::vector<SweptStatement> &statements,
                       const Lines &before, const Lines &after);

} // namespace kolmo::testing

#endif
