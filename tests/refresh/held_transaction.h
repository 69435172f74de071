/*
 * held_transaction: another process in the middle of a transaction, for as long as a test wants.
 */
#pragma once

#include <functional>
#include <string>

#include <sys/types.h>

#include "common/owned.h"

namespace kolmo::testing
{

/*
 * From the end of the constructor another process has run `sql`, which begins a transaction on an SQLite
 * file, and then `deed`.  At the end of the scope, or once the deed is done, it commits; the test fails
 * unless all of that went well.  The connections of this process to the file must be idle at the beginning.
 */
class HeldTransaction
{
public:
    HeldTransaction(const std::string &path, const std::string &sql, const std::function<bool()> &deed = {});
    ~HeldTransaction();
    HeldTransaction(const HeldTransaction &) = delete;
    HeldTransaction &operator=(const HeldTransaction &) = delete;

private:
    pid_t process_ = -1;
    Fd hold_;
};

} // namespace kolmo::testing
