/*
 * responder_operations: the six operations on the responder store, for tests of what they share.
 */
#pragma once

#include <string>
#include <vector>

#include "responder_store/responder_db.h"
#include "tests/support/responder_store_fixture.h"

namespace kolmo::testing
{

/* The operations with sample arguments: Box at Example.COM, two files or headers. */
[[nodiscard]] inline int add_autoresponder(StoreConnection *connection)
{
    const ResponderRecord record = sample_responder();

    return responder_db_add_autoresponder(connection, "Box", "Example.COM", &record);
}

[[nodiscard]] inline int remove_autoresponder(StoreConnection *connection)
{
    return responder_db_remove_autoresponder(connection, "Box", "Example.COM");
}

[[nodiscard]] inline int add_attachments(StoreConnection *connection)
{
    const char *const files[] = {"one.txt", "Two.txt"};

    return responder_db_add_attachments(connection, "Box", "Example.COM", files, 2);
}

[[nodiscard]] inline int remove_attachments(StoreConnection *connection)
{
    return responder_db_remove_attachments(connection, "Box", "Example.COM");
}

[[nodiscard]] inline int add_extra_headers(StoreConnection *connection)
{
    const char *const names[] = {"X-One", "X-Two"};
    const char *const values[] = {"1", "2"};

    return responder_db_add_extra_headers(connection, names, values, 2);
}

[[nodiscard]] inline int remove_extra_headers(StoreConnection *connection)
{
    return responder_db_remove_extra_headers(connection);
}

/* A store with a row of Box's and one of somebody else in each table. */
constexpr char other_rows[] = "INSERT INTO autoresponder (mn, body) VALUES ('other@example.com', 'stays');"
                              "INSERT INTO attachments VALUES ('other@example.com', 'stays');";
constexpr char rows_of_box[] = "INSERT INTO autoresponder (mn, body) VALUES ('box@example.com', 'old');"
                               "INSERT INTO attachments VALUES ('box@example.com', 'old');"
                               "INSERT INTO extra_headers VALUES ('X-Old', 'old');";

/* What a process says that ends because a mailname cannot be formed. */
constexpr char no_memory_for_a_name[] = "^Cannot allocate memory: Cannot allocate memory\n";

/* What is logged of a transaction that cannot be prepared, up to the detail. */
constexpr char cannot_prepare_begin[] = "Unable to prepare SQL statement for query 'BEGIN TRANSACTION;': ";

} // namespace kolmo::testing
