#include "tests/restore/fake_steps.h"

#include <cstdarg>

#include <gtest/gtest.h>

#include "restore/run_handles.h"

namespace kolmo::testing
{

namespace
{

FakeSteps *current;

int result_of(const std::map<std::string, int> &results, const std::string &name)
{
    const auto found = results.find(name);

    return found != results.end() ? found->second : 0;
}

} // namespace

FakeSteps::FakeSteps()
{
    current = this;
}

FakeSteps::~FakeSteps()
{
    current = nullptr;
}

struct FakeStepCalls {
    static FakeSteps &note(const std::string &call)
    {
        current->calls.push_back(call);
        current->states.push_back(std::string(responder_db.is_open() ? "store" : "") +
                                  (panel_db != nullptr ? " panel" : ""));
        return *current;
    }

    static std::string shown(const MYSQL *connection)
    {
        return connection == nullptr ? "null" : connection == &current->connection_ ? "panel" : "(strange)";
    }

    static MYSQL *connect() { return note("connect").connects ? &current->connection_ : nullptr; }

    static int query(const MYSQL *connection, const char *text, unsigned long length)
    {
        note("query " + shown(connection));
        FakeSteps &fake = *current;
        fake.query.assign(text, length);
        return fake.query_result;
    }

    static MYSQL_RES *store() { return note("store").has_result ? &current->result_ : nullptr; }

    static MYSQL_ROW fetch()
    {
        note("fetch");
        FakeSteps &fake = *current;
        if (fake.next_domain_ == fake.domains.size())
            return nullptr;
        FakeDomain &domain = fake.domains[fake.next_domain_++];
        fake.row_ = {domain.id.data(), domain.name.data()};
        return fake.row_.data();
    }

    static int domain(const std::string &id, const std::string &name)
    {
        note("domain " + id + ' ' + name).in_domain();
        return result_of(current->domain_results, name);
    }

    static int aliases(const std::string &id, const std::string &name)
    {
        return result_of(note("aliases " + id + ' ' + name).alias_results, name);
    }

    static const char *setting(const std::string &name, const MYSQL *connection)
    {
        note("setting " + name + ' ' + shown(connection));
        const FakeSteps &fake = *current;
        return fake.headers ? fake.headers->c_str() : nullptr;
    }

    static int headers(const StoreConnection *connection, const std::string &json)
    {
        EXPECT_EQ(connection, &responder_db);
        return note("headers " + json).headers_result;
    }
};

/* Not noted: whoever reports an error asks for its text. */
const char error_text[] = "the server's words";

extern "C" {

/* run_panel_utility */
int __wrap__ZN5kolmo17run_panel_utilityEPKcz(const char *name, ...)
{
    std::string call = std::string("utility ") + name;
    std::va_list arguments;

    va_start(arguments, name);
    for (const char *argument = va_arg(arguments, const char *); argument != nullptr;
         argument = va_arg(arguments, const char *))
        call += std::string(" ") + argument;
    va_end(arguments);
    return FakeStepCalls::note(call).utility_result;
}

/* panel_db_connect */
MYSQL *__wrap__ZN5kolmo16panel_db_connectEv()
{
    return FakeStepCalls::connect();
}

/* restore_domain_responders */
int __wrap__ZN5kolmo25restore_domain_respondersEPKcS1_(const char *id, const char *name)
{
    return FakeStepCalls::domain(id, name);
}

/* restore_alias_responders */
int __wrap__ZN5kolmo24restore_alias_respondersEPKcS1_(const char *id, const char *name)
{
    return FakeStepCalls::aliases(id, name);
}

/* panel_mail_server_setting */
const char *__wrap__ZN5kolmo25panel_mail_server_settingEPKcP8st_mysql(const char *name, MYSQL *connection)
{
    return FakeStepCalls::setting(name, connection);
}

/* store_extra_headers */
int __wrap__ZN5kolmo19store_extra_headersEPNS_15StoreConnectionEPKc(StoreConnection *connection,
                                                                    const char *json)
{
    return FakeStepCalls::headers(connection, json);
}

int __wrap_mysql_real_query(MYSQL *connection, const char *text, unsigned long length)
{
    return FakeStepCalls::query(connection, text, length);
}

MYSQL_RES *__wrap_mysql_store_result(MYSQL *)
{
    return FakeStepCalls::store();
}

MYSQL_ROW __wrap_mysql_fetch_row(MYSQL_RES *)
{
    return FakeStepCalls::fetch();
}

void __wrap_mysql_free_result(MYSQL_RES *result)
{
    if (result != nullptr)
        (void)FakeStepCalls::note("free");
}

const char *__wrap_mysql_error(MYSQL *)
{
    return error_text;
}

void __wrap_mysql_close(MYSQL *connection)
{
    (void)FakeStepCalls::note("disconnect " + FakeStepCalls::shown(connection));
}

} // extern "C"

} // namespace kolmo::testing
