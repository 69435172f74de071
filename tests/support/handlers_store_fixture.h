/*
 * handlers_store_fixture: a handlers store of a test's own.
 *
 * Rows and records are compared as text, one form for both, null as "NULL":
 *
 *     queue|type|enabled|priority|name|address|executable|context|protected
 */
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "handlers_store/handler_record.h"
#include "responder_store/kit/store_connection.h"
#include "tests/support/log_capture.h"
#include "tests/support/store_file.h"

namespace kolmo::testing
{

/* While it lives, handlers_db_path leads to a store in a temporary folder, made by handlers_db_create_schema.
 */
class HandlersStore : public StoreFile
{
public:
    HandlersStore();

    [[nodiscard]] bool exists() const;
    void remove() const;

    /* Runs SQL statements on a connection of their own; the test fails if they do. */
    void execute(const std::string &sql) const;

    /* Writes a row, the address as it stands, without the code under test. */
    void add(const HandlerRecord &record) const;

    /* From now on every read fails once it has begun, with SQLite's text "integer overflow". */
    void make_unreadable() const;

    /* The result rows of a statement, columns joined by "|", sorted. */
    [[nodiscard]] Lines query(const std::string &sql) const;

    /* All rows, sorted. */
    [[nodiscard]] Lines rows() const;

    /* "address name" of all rows, sorted. */
    [[nodiscard]] Lines handlers() const;
};

/* A test with a store, in which every logged line must be announced. */
class HandlersStoreTest : public ::testing::Test
{
protected:
    LogCapture log;
    HandlersStore store;
};

/* A record with borrowed texts: queue 2, type 1, priority 10, program "/hook", context "none", enabled. */
[[nodiscard]] HandlerRecord handler(const char *name, const char *address);

/* The text of a record, and those of a list from its head. */
[[nodiscard]] std::string text_of(const HandlerRecord &record);
[[nodiscard]] Lines texts_of(const HandlerList &list);

} // namespace kolmo::testing
