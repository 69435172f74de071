/*
 * live_stores: one connection to both live stores, and what is known of them.
 *
 * The handlers store is its main database, so that a commit over both files has a file of its own that makes
 * it one (SQLite's super-journal), which it has not beside a main database in memory.  The responder store is
 * attached as "responder" unless it cannot be read: then it waits to be replaced.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>

#include "verify/sqlite_query.h"
#include "verify/store_copy.h"

namespace kolmo
{

/* A file as the file system tells it; two are equal while nobody has written or replaced it. */
struct FileIdentity {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t modified = 0; /* nanoseconds */
    std::int64_t changed = 0;

    [[nodiscard]] static FileIdentity of(const std::string &path);
    bool operator==(const FileIdentity &) const = default;
};

class LiveStores
{
public:
    /* wait  how long a lock is waited for, each time */
    LiveStores(std::string handlers, std::string responder, std::chrono::milliseconds wait,
               TroubleSink trouble, TroubleSink note);

    /*
     * Opens both anew; a hot journal is rolled back, which is noted.
     *
     * Returns 0, or -1 after telling the trouble; a responder store that cannot be read is none.
     */
    [[nodiscard]] int open();

    [[nodiscard]] sqlite3 *db() const { return db_.get(); }

    /* Why the responder store is not attached; empty when it is. */
    [[nodiscard]] const std::string &responder_flaw() const { return flaw_; }

    /* Attaches a database that is only read, in place of one that was attached by that name before. */
    [[nodiscard]] int attach(const std::string &path, const char *schema);

    /* Whether somebody wrote or replaced the responder store since open; nothing when it cannot be told. */
    [[nodiscard]] std::optional<bool> responder_changed();

    /* The same for the handlers store's rows. */
    [[nodiscard]] std::optional<bool> handlers_changed();

    /* Whether the handlers store's file is another one. */
    [[nodiscard]] bool handlers_replaced() const;

    /*
     * Locks both stores against readers, too: nothing can hinder the commit any more.  While somebody else
     * has a lock nobody is kept out for longer than a moment: both are tried for, and let go again.
     */
    [[nodiscard]] int lock();
    [[nodiscard]] int commit();
    void roll_back();

    /* Of a writer, like us, that was killed when it had both stores locked, or of a commit that failed. */
    void remove_stale_lists();

    /* SQLite's words for what failed last. */
    [[nodiscard]] std::string detail() const;

private:
    [[nodiscard]] int open_handlers();
    [[nodiscard]] int open_responder();
    [[nodiscard]] int refuse(const std::string &path, StoreFileKind kind);
    [[nodiscard]] int accept(const std::string &path, const char *schema, int rc, bool was_hot);
    [[nodiscard]] int connect();
    [[nodiscard]] int get_ready();
    [[nodiscard]] int attach_as(const std::string &path, const char *mode, const char *schema);
    [[nodiscard]] int first_read(const char *schema);
    [[nodiscard]] int execute(const char *sql);
    [[nodiscard]] int try_to(const char *begin);
    [[nodiscard]] std::optional<std::int64_t> data_version(const char *schema);
    int tell(const std::string &what);

    std::string handlers_;
    std::string responder_;
    std::chrono::milliseconds wait_;
    TroubleSink trouble_;
    TroubleSink note_;
    SqliteConnection db_;
    std::string flaw_;
    FileIdentity responder_file_;
    std::int64_t responder_version_ = 0;
    std::int64_t handlers_version_ = 0;
};

} // namespace kolmo
