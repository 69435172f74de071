#include "refresh/live_stores.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <thread>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "refresh/killed_writer.h"
#include "refresh/store_file.h"

namespace kolmo
{

namespace
{

using Clock = std::chrono::steady_clock;

/* Less than the 50 ms that others wait before they give up. */
constexpr int milliseconds_of_a_try = 20;
constexpr std::chrono::milliseconds pause_between_tries(20);

bool is_busy(int rc)
{
    return (rc & 0xff) == SQLITE_BUSY || (rc & 0xff) == SQLITE_LOCKED;
}

bool is_unusable(int rc)
{
    return (rc & 0xff) == SQLITE_NOTADB || (rc & 0xff) == SQLITE_CORRUPT;
}

/* The end of the journal, or of the list of both, is the commit.  What can fail after it, the sync of their
   folder or the lock on its way down, undoes nothing. */
bool is_after_commit(int extended)
{
    return extended == SQLITE_IOERR_DIR_FSYNC || extended == SQLITE_IOERR_RDLOCK ||
           extended == SQLITE_IOERR_UNLOCK;
}

/* What RFC 3986 lets stand, for an SQLite URI. */
std::string uri_of(const std::string &path, const char *mode)
{
    constexpr char digits[] = "0123456789ABCDEF";
    constexpr char plain[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-";
    std::string uri = "file:";

    for (const char character : path) {
        const auto byte = static_cast<unsigned char>(character);

        if (std::strchr(plain, character) != nullptr)
            uri += character;
        else
            uri += {'%', digits[byte >> 4], digits[byte & 0xf]};
    }
    return uri + "?mode=" + mode;
}

int busy_milliseconds(std::chrono::milliseconds wait)
{
    return static_cast<int>(std::min<std::chrono::milliseconds::rep>(wait.count(), INT_MAX));
}

std::int64_t nanoseconds(const timespec &time)
{
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

} // namespace

FileIdentity FileIdentity::of(const std::string &path)
{
    struct stat status;

    if (::stat(path.c_str(), &status) != 0)
        return {};
    return {true,
            status.st_dev,
            status.st_ino,
            status.st_size,
            nanoseconds(status.st_mtim),
            nanoseconds(status.st_ctim)};
}

LiveStores::LiveStores(std::string handlers, std::string responder, std::chrono::milliseconds wait,
                       TroubleSink trouble, TroubleSink note)
    : handlers_(std::move(handlers)), responder_(std::move(responder)), wait_(wait),
      trouble_(std::move(trouble)), note_(std::move(note))
{
}

std::string LiveStores::detail() const
{
    const int rc = sqlite3_errcode(db_.get()) & 0xff;
    const int error = sqlite3_system_errno(db_.get());
    std::string words = sqlite3_errmsg(db_.get());

    /* What SQLite cannot create it tries to read, and then that is missing. */
    const bool is_created = rc == SQLITE_CANTOPEN && words == sqlite3_errstr(rc);

    if ((rc == SQLITE_IOERR || rc == SQLITE_CANTOPEN) && error != 0 && !(is_created && error == ENOENT))
        words += std::string(" (") + std::strerror(error) + ')';
    return words;
}

int LiveStores::tell(const std::string &what)
{
    trouble_(what + ": " + detail());
    return -1;
}

int LiveStores::execute(const char *sql)
{
    return sqlite3_exec(db_.get(), sql, nullptr, nullptr, nullptr);
}

int LiveStores::open()
{
    db_.reset();
    flaw_.clear();
    if (open_handlers() != 0 || open_responder() != 0) {
        db_.reset();
        return -1;
    }
    return 0;
}

int LiveStores::open_handlers()
{
    const bool is_hot = has_hot_journal(handlers_);
    const StoreFileKind kind = look_at_store_file(handlers_);

    /* Half a commit may have spoilt the beginning of the file. */
    if (kind != StoreFileKind::database && !(is_hot && kind == StoreFileKind::no_database))
        return refuse(handlers_, kind);

    const int rc = connect() == SQLITE_OK ? first_read("main") : sqlite3_errcode(db_.get());

    if (is_unusable(rc)) {
        trouble_(handlers_ + " is no database, or is damaged");
        return -1;
    }
    return accept(handlers_, "main", rc, is_hot);
}

int LiveStores::open_responder()
{
    const bool is_hot = has_hot_journal(responder_);
    const StoreFileKind kind = look_at_store_file(responder_);

    responder_file_ = FileIdentity::of(responder_);
    if (kind == StoreFileKind::missing && is_link(responder_)) {
        trouble_(responder_ + " is a link to a file that is missing");
        return -1;
    }
    if (kind == StoreFileKind::missing)
        flaw_ = "is missing";
    else if (kind == StoreFileKind::empty)
        flaw_ = "is empty";
    else if (kind == StoreFileKind::no_database && !is_hot)
        flaw_ = "is no database";
    else if (kind != StoreFileKind::database && kind != StoreFileKind::no_database)
        return refuse(responder_, kind);
    if (!flaw_.empty())
        return get_ready();

    const int attached = attach_as(responder_, "rw", "responder");
    const int rc = attached == SQLITE_OK ? first_read("responder") : attached;

    if (is_unusable(rc) || rc == SQLITE_ERROR) {
        /* The other error is of a format that this SQLite does not know: a bit of the header may be wrong. */
        flaw_ = is_unusable(rc) ? "is no database, or is damaged" : "cannot be read: " + detail();
        (void)execute("DETACH responder");
    } else if (accept(responder_, "responder", rc, is_hot) != 0) {
        return -1;
    }
    responder_file_ = FileIdentity::of(responder_); /* what was rolled back is written */
    return get_ready();
}

/*
 * A commit over both files is on the disk when the super-journal's end is; one to the handlers only must have
 * its journal's end synced, too.  Pages that are written and that the cache cannot hold cost a sync of the
 * journal, time and again.
 */
int LiveStores::get_ready()
{
    const bool is_attached = flaw_.empty();
    const std::optional<std::int64_t> responder = is_attached ? data_version("responder") : 0;
    const std::optional<std::int64_t> handlers = data_version("main");

    responder_version_ = responder.value_or(0);
    handlers_version_ = handlers.value_or(0);
    if (responder && handlers &&
        execute(is_attached ? "PRAGMA responder.synchronous = FULL; PRAGMA responder.cache_size = -6144"
                            : "PRAGMA main.synchronous = EXTRA") == SQLITE_OK)
        return 0;
    return tell(responder_ + " cannot be opened");
}

/* Tells what stands against opening a file. */
int LiveStores::refuse(const std::string &path, StoreFileKind kind)
{
    if (kind != StoreFileKind::database_in_wal_mode) {
        if (check_store_file(path, trouble_) == 0)
            trouble_(path + " cannot be read: it is not what it was a moment ago");
        return -1;
    }
    trouble_(path + " is in WAL mode, in which a commit over both stores is not one: sqlite3 " + path +
             " 'PRAGMA journal_mode = DELETE'");
    return -1;
}

/* What came of opening a database. */
int LiveStores::accept(const std::string &path, const char *schema, int rc, bool was_hot)
{
    if (is_busy(rc)) {
        trouble_(path + " is locked by another process, longer than was waited for (--wait)");
        return -1;
    }
    if (rc != SQLITE_OK)
        return tell(path + " cannot be read");
    if (was_hot)
        note_(path + ": a writer had been killed in the middle of a commit; what it left was tidied up");
    if (sqlite3_db_readonly(db_.get(), schema) == 0)
        return 0;
    trouble_(path + " cannot be written: the file or its file system is read-only");
    return -1;
}

int LiveStores::connect()
{
    sqlite3 *db = nullptr;
    const int rc = sqlite3_open_v2(uri_of(handlers_, "rw").c_str(), &db,
                                   SQLITE_OPEN_READWRITE | SQLITE_OPEN_URI, nullptr);

    db_.reset(db);
    if (rc != SQLITE_OK)
        return rc;
    (void)sqlite3_busy_timeout(db, busy_milliseconds(wait_));
    /* The rows are published as they are: what a table's triggers make of them they have made already. */
    (void)sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    return execute("PRAGMA foreign_keys = OFF; PRAGMA main.synchronous = FULL");
}

int LiveStores::attach_as(const std::string &path, const char *mode, const char *schema)
{
    const std::string uri = uri_of(path, mode);
    SqliteQuery attachment;

    if (attachment.prepare(db_.get(), (std::string("ATTACH ?1 AS ") + schema).c_str()) != 0)
        return sqlite3_errcode(db_.get());
    attachment.ask(uri);
    (void)attachment.next();
    return attachment.failed() ? sqlite3_errcode(db_.get()) : SQLITE_OK;
}

/* Rolls a hot journal back. */
int LiveStores::first_read(const char *schema)
{
    SqliteQuery count;
    const std::string sql = std::string("SELECT count(*) FROM ") + schema + ".sqlite_schema";

    if (count.prepare(db_.get(), sql.c_str()) == 0 && count.next())
        return SQLITE_OK;
    return sqlite3_errcode(db_.get());
}

int LiveStores::attach(const std::string &path, const char *schema)
{
    (void)execute((std::string("DETACH ") + schema).c_str());
    if (attach_as(path, "ro", schema) == SQLITE_OK && first_read(schema) == SQLITE_OK) {
        (void)execute((std::string("PRAGMA ") + schema + ".cache_size = -256").c_str());
        return 0;
    }
    return tell(path + " cannot be read");
}

std::optional<std::int64_t> LiveStores::data_version(const char *schema)
{
    const std::string sql = std::string("PRAGMA ") + schema + ".data_version";
    SqliteQuery version;

    if (version.prepare(db_.get(), sql.c_str()) != 0 || !version.next())
        return std::nullopt;
    return version.number(0);
}

/* Commits of one moment look alike to the file's times, and files that were copied over each other to SQLite.
 */
std::optional<bool> LiveStores::responder_changed()
{
    if (FileIdentity::of(responder_) != responder_file_)
        return true;
    if (!flaw_.empty())
        return false;

    const std::optional<std::int64_t> version = data_version("responder");

    if (!version)
        return std::nullopt;
    return *version != responder_version_;
}

std::optional<bool> LiveStores::handlers_changed()
{
    const std::optional<std::int64_t> version = data_version("main");

    if (!version)
        return std::nullopt;
    return *version != handlers_version_;
}

bool LiveStores::handlers_replaced() const
{
    int moved = 0;

    return sqlite3_file_control(db_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved) != SQLITE_OK || moved != 0;
}

int LiveStores::try_to(const char *begin)
{
    (void)sqlite3_busy_timeout(db_.get(), milliseconds_of_a_try);

    const int rc = execute(begin);

    (void)sqlite3_busy_timeout(db_.get(), busy_milliseconds(wait_));
    return rc;
}

int LiveStores::lock()
{
    const Clock::time_point deadline = Clock::now() + wait_;
    int rc;

    if (db_ == nullptr) {
        trouble_("the live stores are not open any more");
        return -1;
    }

    while (is_busy(rc = try_to("BEGIN EXCLUSIVE")) && Clock::now() < deadline)
        std::this_thread::sleep_for(pause_between_tries);
    if (is_busy(rc))
        trouble_("one of the stores is locked by another process, longer than was waited for (--wait)");
    else if (rc != SQLITE_OK)
        (void)tell("the stores cannot be locked");
    return rc == SQLITE_OK ? 0 : -1;
}

int LiveStores::commit()
{
    if (execute("COMMIT") == SQLITE_OK || is_after_commit(sqlite3_extended_errcode(db_.get())))
        return 0;
    (void)tell("what was written cannot be committed, and has been undone");
    roll_back();
    remove_stale_lists();
    return -1;
}

/* Closing the connection does so, too. */
void LiveStores::roll_back()
{
    if (db_ == nullptr || sqlite3_get_autocommit(db_.get()) != 0)
        return;
    if (execute("ROLLBACK") != SQLITE_OK)
        db_.reset();
}

void LiveStores::remove_stale_lists()
{
    if (db_ == nullptr || stale_journal_lists(handlers_).empty() || try_to("BEGIN IMMEDIATE") != SQLITE_OK)
        return;
    for (const std::string &list : stale_journal_lists(handlers_))
        (void)::unlink(list.c_str());
    roll_back();
}

} // namespace kolmo
