/*
 * responder_store_fixture: a responder store of a test's own, and a second process that locks it.
 *
 * A row is compared as text: its columns joined by "|", null as "NULL".
 */
#ifndef KOLMO_TESTS_SUPPORT_RESPONDER_STORE_FIXTURE_H
#define KOLMO_TESTS_SUPPORT_RESPONDER_STORE_FIXTURE_H

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/types.h>

#include "responder_store/responder_record.h"
#include "responder_store/store_connection.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace kolmo::testing
{

using Lines = std::vector<std::string>;

/*
 * While it lives, responder_db_path leads to an empty store in a temporary folder.  A test that uses
 * SqliteFaults declares this first: the connection by which a test looks at the store is none of theirs.
 */
class ResponderStore
{
public:
    ResponderStore();
    ~ResponderStore();
    ResponderStore(const ResponderStore &) = delete;
    ResponderStore &operator=(const ResponderStore &) = delete;

    [[nodiscard]] const std::string &path() const { return path_; }
    [[nodiscard]] const TempDir &folder() const { return folder_; }

    /* Runs SQL statements on the test's own connection, where a lock can be held; they must succeed. */
    void execute(const std::string &sql) const { (void)query(sql); }

    /* The result rows of a statement, in its order. */
    [[nodiscard]] Lines query(const std::string &sql) const;

    /* The committed rows of a table in the order in which they were written; of all tables, "TABLE: row". */
    [[nodiscard]] Lines rows(const std::string &table) const;
    [[nodiscard]] Lines rows() const;

    /* A connection of the kind that a caller passes. */
    [[nodiscard]] StoreConnection open() const;

private:
    TempDir folder_;
    std::string path_;
    const char *saved_path_;
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

/*
 * An exclusive lock on an SQLite file, held by another process from the end of the constructor
 * for so many milliseconds.  The connections of this process to the file must be idle at that moment.
 */
class OtherProcessLock
{
public:
    OtherProcessLock(const std::string &path, int milliseconds);

    /* Waits for the process's end. */
    ~OtherProcessLock();

    OtherProcessLock(const OtherProcessLock &) = delete;
    OtherProcessLock &operator=(const OtherProcessLock &) = delete;

private:
    pid_t process_ = -1;
};

} // namespace kolmo::testing

#endif
