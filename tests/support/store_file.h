/*
 * store_file: an SQLite file of a test's own that stands in for a store of the mail server's.
 *
 * A row is compared as text: its columns joined by "|", null as "NULL".
 */
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "responder_store/kit/store_connection.h"
#include "tests/support/temp_dir.h"

namespace kolmo::testing
{

using Lines = std::vector<std::string>;

/*
 * Runs SQL statements, which must succeed, and returns the result rows in their order.  It is done by
 * sqlite3_get_table, no call of the code under test, so that it is never recorded or made to fail.
 */
Lines result_rows(sqlite3 *connection, const std::string &sql);

/* A caller's connection that is closed at the end of the test's scope even when it was abandoned. */
class CallersConnection : public StoreConnection
{
public:
    CallersConnection(StoreConnection &&opened) noexcept : StoreConnection(std::move(opened)) {}
    CallersConnection(CallersConnection &&) = default;
    CallersConnection &operator=(CallersConnection &&) = default;
    ~CallersConnection() { (void)sqlite3_close(release()); }
};

/* While it lives, a store's path variable leads to a file in a temporary folder; it is for the owner to make.
 */
class StoreFile
{
public:
    StoreFile(const StoreFile &) = delete;
    StoreFile &operator=(const StoreFile &) = delete;

    [[nodiscard]] const std::string &path() const { return path_; }
    [[nodiscard]] const TempDir &folder() const { return folder_; }

    /* A connection of the kind that a caller passes. */
    [[nodiscard]] StoreConnection open(OpenMode mode = OpenMode::read_write) const
    {
        StoreConnection connection;

        EXPECT_EQ(open_store(&connection, path_.c_str(), mode), Ending::done);
        return connection;
    }

protected:
    StoreFile(const char *name, const char *&path_variable)
        : path_(folder_.path(name)), path_variable_(path_variable), saved_path_(path_variable)
    {
        path_variable_ = path_.c_str();
    }
    ~StoreFile() { path_variable_ = saved_path_; }

private:
    TempDir folder_;
    std::string path_;
    const char *&path_variable_;
    const char *saved_path_;
};

} // namespace kolmo::testing
