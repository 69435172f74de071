#include "tests/restore/panel_watch.h"

#include <gtest/gtest.h>
#include <mysql.h>

namespace kolmo::testing
{

namespace
{

PanelWatch *current;

} // namespace

PanelWatch::PanelWatch()
{
    current = this;
}

PanelWatch::~PanelWatch()
{
    current = nullptr;
    EXPECT_LE(results_to_loss_, 0) << "the result that had to get lost was never fetched";
}

struct PanelWatchCalls {
    static void note(const char *text, unsigned long length)
    {
        if (current != nullptr)
            current->queries.emplace_back(text, length);
    }

    static void note_free()
    {
        if (current != nullptr && current->on_free)
            current->on_free();
    }

    static bool loses_result() { return current != nullptr && --current->results_to_loss_ == 0; }
};

extern "C" {

int __real_mysql_real_query(MYSQL *connection, const char *text, unsigned long length);
MYSQL_RES *__real_mysql_store_result(MYSQL *connection);
void __real_mysql_free_result(MYSQL_RES *result);

int __wrap_mysql_real_query(MYSQL *connection, const char *text, unsigned long length)
{
    PanelWatchCalls::note(text, length);
    return __real_mysql_real_query(connection, text, length);
}

/* Read all the same, or the connection would take no further query. */
MYSQL_RES *__wrap_mysql_store_result(MYSQL *connection)
{
    MYSQL_RES *const result = __real_mysql_store_result(connection);

    if (!PanelWatchCalls::loses_result())
        return result;
    __real_mysql_free_result(result);
    return nullptr;
}

void __wrap_mysql_free_result(MYSQL_RES *result)
{
    PanelWatchCalls::note_free();
    __real_mysql_free_result(result);
}

} // extern "C"

} // namespace kolmo::testing
