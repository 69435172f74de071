#include "tests/refresh/held_transaction.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kolmo::testing
{

namespace
{

[[noreturn]] void hold(const std::string &path, const std::string &sql, const std::function<bool()> &deed,
                       int other_end)
{
    sqlite3 *db = nullptr;
    char byte = 0;
    bool is_good = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
                   sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK &&
                   ::write(other_end, &byte, 1) == 1;

    if (is_good && deed)
        is_good = deed();
    else if (is_good)
        (void)::read(other_end, &byte, 1); /* until the scope's end */
    ::_exit(is_good && sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK ? 0 : 1);
}

} // namespace

HeldTransaction::HeldTransaction(const std::string &path, const std::string &sql,
                                 const std::function<bool()> &deed)
{
    int ends[2];
    char byte;

    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        ADD_FAILURE() << "no sockets";
        return;
    }
    hold_.reset(ends[0]);

    Fd other_end(ends[1]);

    process_ = ::fork();
    if (process_ == 0) {
        hold_.reset();
        hold(path, sql, deed, other_end.get());
    }
    other_end.reset();
    EXPECT_EQ(::read(hold_.get(), &byte, 1), 1) << "the other process has not begun: " << sql;
}

HeldTransaction::~HeldTransaction()
{
    int status = -1;

    hold_.reset();
    if (process_ <= 0)
        return;
    EXPECT_EQ(::waitpid(process_, &status, 0), process_);
    EXPECT_EQ(status, 0);
}

} // namespace kolmo::testing
