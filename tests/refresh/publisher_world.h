/*
 * publisher_world: two live stores and two staged ones in a folder of a test's own.
 */
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "refresh/publisher.h"
#include "tests/support/store_file.h"
#include "tests/support/temp_dir.h"

namespace kolmo::testing
{

constexpr char handlers_schema[] =
    "CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, priority INTEGER, "
    "name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL, executable VARCHAR(2048) NOT NULL, "
    "context VARCHAR(2048) NOT NULL, protected BOOLEAN NOT NULL default 0, "
    "CONSTRAINT uniq_entries_constaraint PRIMARY KEY (queue, type, name, address));"
    "CREATE INDEX idx1 ON handlers(queue, type, enabled, address);";

/* SQL that adds a row: of an autoresponder with a body, of a handler with a priority. */
[[nodiscard]] std::string sql_reply(const std::string &address, const std::string &body);
[[nodiscard]] std::string sql_attachment(const std::string &address, const std::string &file);
[[nodiscard]] std::string sql_header(const std::string &name, const std::string &value);
[[nodiscard]] std::string sql_handler(const std::string &address, int priority = 90,
                                      const std::string &name = "autoresponder");

/* What one publishing did: what was heard, how it ended. */
struct Published {
    Lines changes; /* "added autoresponder a@x.test" */
    ChangeCounts counts;
    Lines troubles;
    Lines notes;
    PublishResult result = PublishResult::failed;
};

class PublisherWorld
{
public:
    /* Both live stores and the staged responder store, with their tables and without rows. */
    PublisherWorld();

    /* Runs SQL on a store of that name on a connection of its own: "live_responder", ... */
    Lines run(const std::string &path, const std::string &sql) const;

    /* Takes all rows out of an index and leaves them in its table; `columns` has one name for each of the
       index and one for the rowid. */
    void empty_index(const std::string &path, const std::string &index, const std::string &columns) const;

    /* A publisher that tells what it hears to `published`. */
    [[nodiscard]] std::unique_ptr<Publisher> publisher(Published *published, int wait_seconds = 60) const;

    /* All steps.  `rebuild` is what happens to the staged stores, `meanwhile` what comes before publish; a
       step that fails ends it with PublishResult::failed. */
    Published publish(const std::function<void()> &rebuild = {}, const PublishOptions &options = {},
                      const std::function<void()> &meanwhile = {}) const;

    /* All rows of a store with the types of their values, sorted; and all that is in a folder. */
    [[nodiscard]] Lines rows(const std::string &path) const;
    [[nodiscard]] Lines files() const;

    TempDir folder;
    PublishPaths paths;

private:
    void make(const std::string &path, const std::string &sql) const;
};

class PublisherTest : public ::testing::Test
{
protected:
    PublisherWorld world;
};

} // namespace kolmo::testing
