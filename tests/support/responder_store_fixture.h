/*
 * responder_store_fixture: a responder store of a test's own.
 */
#pragma once

#include <string>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "responder_store/kit/store_connection.h"
#include "responder_store/responder_record.h"
#include "tests/support/log_capture.h"
#include "tests/support/store_file.h"

namespace kolmo::testing
{

/*
 * While it lives, responder_db_path leads to an empty store in a temporary folder.  A test that uses
 * SqliteFaults declares this first: the connection by which a test looks at the store is none of theirs.
 */
class ResponderStore : public StoreFile
{
public:
    ResponderStore();
    ~ResponderStore();

    /* Runs SQL statements on the test's own connection, where a lock can be held; they must succeed. */
    void execute(const std::string &sql) const { (void)query(sql); }

    /* The result rows of a statement, in its order. */
    [[nodiscard]] Lines query(const std::string &sql) const { return result_rows(connection_, sql); }

    /* The committed rows of a table in the order in which they were written; of all tables, "TABLE: row". */
    [[nodiscard]] Lines rows(const std::string &table) const;
    [[nodiscard]] Lines rows() const;

private:
    sqlite3 *connection_ = nullptr;
};

/* A test with a store, in which every logged line must be announced. */
class ResponderStoreTest : public ::testing::Test
{
protected:
    LogCapture log;
    ResponderStore store;
};

/* A record with borrowed texts, all different, with ans_freq 17 and mem_limit -3, of the mail name "Owner".
 */
[[nodiscard]] ResponderRecord sample_responder();

/* Its row as it must be stored for this mailname and owner. */
[[nodiscard]] std::string sample_row(const std::string &mailname, const std::string &owner);

/* Whether a connection has begun a transaction and not ended it. */
[[nodiscard]] bool in_transaction(const StoreConnection &connection);

} // namespace kolmo::testing
