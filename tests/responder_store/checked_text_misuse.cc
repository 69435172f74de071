/*
 * Compiled only, by tests that expect it to fail: with MISUSE_..., a message that does not fit its texts, or
 * a statement that does not fit its parameters.
 */
#include "responder_store/kit/checked_text.h"
#include "responder_store/kit/store_op.h"

int main()
{
#if defined(MISUSE_TOO_FEW)
    kolmo::log_failure("Unable to add %s: %s", "one");
#elif defined(MISUSE_TOO_MANY)
    kolmo::log_failure("Unable to add: %s", "one", "two");
#elif defined(MISUSE_OTHER_CONVERSION)
    kolmo::log_failure("Unable to add: %d", "one");
#elif defined(MISUSE_BIND)
    (void)kolmo::bind_text("value", "Unable to bind parameter");
#elif defined(MISUSE_ESCAPED_PERCENT)
    kolmo::log_failure("Unable to add 100%%: %s", "one");
#elif defined(MISUSE_FEW_PARAMETERS)
    (void)kolmo::Sql<2>("DELETE FROM handlers WHERE name=?");
#elif defined(MISUSE_MANY_PARAMETERS)
    (void)kolmo::Sql<1>("DELETE FROM handlers WHERE name=? AND type=?");
#else
    (void)kolmo::Sql<1>("DELETE FROM handlers WHERE name=?");
    kolmo::log_failure("Unable to add %s: %s", "one", "two");
    (void)kolmo::bind_text("value", "Unable to bind parameter: %s");
#endif
}
