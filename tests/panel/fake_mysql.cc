#include "tests/panel/fake_mysql.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace kolmo::testing
{

namespace
{

FakeMysql *current;
bool is_closed = false;

std::string shown(const char *text)
{
    return text != nullptr ? text : "(null)";
}

} // namespace

FakeMysql::FakeMysql()
{
    current = this;
    is_closed = false;
}

FakeMysql::~FakeMysql()
{
    current = nullptr;
}

/* The replaced calls' way to the fake; each notes itself and answers. */
struct FakeMysqlCalls {
    static FakeMysql &note(const std::string &call)
    {
        if (current == nullptr) {
            ADD_FAILURE() << "no call was expected: " << call;
            abort();
        }
        current->calls_.push_back(call);
        return *current;
    }

    static MYSQL *init()
    {
        FakeMysql &fake = note("init");
        is_closed = false;
        return fake.init_fails ? nullptr : &fake.handle_;
    }

    static MYSQL *connect(MYSQL *connection, const std::string &arguments)
    {
        FakeMysql &fake = note("connect " + arguments);
        EXPECT_EQ(connection, &fake.handle_);
        if (fake.connect_fails) {
            errno = fake.errno_of_failures;
            return nullptr;
        }
        fake.number_ = fake.errno_after_connect;
        return connection;
    }

    static int query(MYSQL *connection, const std::string &call)
    {
        FakeMysql &fake = note(call);
        EXPECT_EQ(connection, &fake.handle_);
        fake.number_ = fake.errno_after_query;
        if (!fake.query_fails)
            return 0;
        errno = fake.errno_of_failures;
        return 1;
    }

    static MYSQL_RES *store()
    {
        FakeMysql &fake = note("store");
        fake.number_ = fake.errno_after_store;
        return fake.has_result ? &fake.result_ : nullptr;
    }

    static unsigned int columns() { return static_cast<unsigned int>(current->row.size()); }

    static MYSQL_ROW fetch()
    {
        FakeMysql &fake = note("fetch");
        return fake.has_row ? const_cast<MYSQL_ROW>(fake.row.data()) : nullptr;
    }

    /* What a handle says of its failure it says until it is closed. */
    static FakeMysql &asked(const MYSQL *connection)
    {
        EXPECT_EQ(connection, &current->handle_);
        EXPECT_FALSE(is_closed);
        return *current;
    }

    static unsigned int error_number(MYSQL *connection) { return asked(connection).number_; }
    static const char *error_text(MYSQL *connection) { return asked(connection).error.c_str(); }
    static void close()
    {
        release("close");
        is_closed = true;
    }
    static void release(const char *call) { errno = note(call).errno_of_release; }
};

extern "C" {

MYSQL *__wrap_mysql_init(MYSQL *connection)
{
    EXPECT_EQ(connection, nullptr);
    return FakeMysqlCalls::init();
}

MYSQL *__wrap_mysql_real_connect(MYSQL *connection, const char *host, const char *user, const char *password,
                                 const char *database, unsigned int port, const char *socket,
                                 unsigned long flags)
{
    return FakeMysqlCalls::connect(connection, shown(host) + ' ' + shown(user) + ' ' + shown(password) + ' ' +
                                                   shown(database) + ' ' + std::to_string(port) + ' ' +
                                                   shown(socket) + ' ' + std::to_string(flags));
}

int __wrap_mysql_query(MYSQL *connection, const char *query)
{
    return FakeMysqlCalls::query(connection, "query " + std::string(query));
}

int __wrap_mysql_real_query(MYSQL *connection, const char *query, unsigned long length)
{
    return FakeMysqlCalls::query(connection, "real_query " + std::string(query, length));
}

MYSQL_RES *__wrap_mysql_store_result(MYSQL *)
{
    return FakeMysqlCalls::store();
}

unsigned int __wrap_mysql_num_fields(MYSQL_RES *)
{
    return FakeMysqlCalls::columns();
}

MYSQL_ROW __wrap_mysql_fetch_row(MYSQL_RES *)
{
    return FakeMysqlCalls::fetch();
}

void __wrap_mysql_free_result(MYSQL_RES *)
{
    FakeMysqlCalls::release("free");
}

unsigned int __wrap_mysql_errno(MYSQL *connection)
{
    return FakeMysqlCalls::error_number(connection);
}

const char *__wrap_mysql_error(MYSQL *connection)
{
    return FakeMysqlCalls::error_text(connection);
}

void __wrap_mysql_close(MYSQL *)
{
    FakeMysqlCalls::close();
}

} // extern "C"

} // namespace kolmo::testing
