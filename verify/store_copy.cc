#include "verify/store_copy.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/owned.h"

namespace kolmo
{

namespace
{

using Clock = std::chrono::steady_clock;

/* A step holds the lock for a few milliseconds: a writer waits 50 and more. */
constexpr int pages_of_a_step = 512;
constexpr int most_beginnings = 10;

using Backup = std::unique_ptr<sqlite3_backup, Release<sqlite3_backup_finish>>;

/* The words of the file format (https://www.sqlite.org/fileformat.html, 1.3). */
bool is_database(const char (&header)[100])
{
    return std::memcmp(header, "SQLite format 3", 16) == 0;
}

bool is_in_wal_mode(const char (&header)[100])
{
    return header[19] == 2;
}

bool is_busy(int rc)
{
    return (rc & 0xff) == SQLITE_BUSY || (rc & 0xff) == SQLITE_LOCKED;
}

std::string octal(mode_t mode)
{
    std::string digits;

    for (int shift = 9; shift >= 0; shift -= 3)
        digits += static_cast<char>('0' + ((mode >> shift) & 7));
    return digits;
}

int open_source(const std::string &path, SqliteConnection *source, const TroubleSink &trouble)
{
    sqlite3 *db = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);

    source->reset(db);
    if (rc == SQLITE_OK)
        return 0;
    trouble(path + " cannot be opened: " + (db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc)));
    return -1;
}

/* A copy without a name is a temporary file of SQLite's. */
std::string no_space_for(sqlite3 *copy)
{
    const char *const file = sqlite3_db_filename(copy, "main");

    if (file == nullptr || *file == '\0')
        return no_space_for_copy;
    return std::string(file) + " cannot be made: " + sqlite3_errstr(SQLITE_FULL);
}

/* What a failed copy means; a reader that may not write cannot roll a hot journal back. */
std::string copy_failure(const std::string &path, int rc, sqlite3 *source, sqlite3 *copy)
{
    if (rc == SQLITE_READONLY_ROLLBACK || rc == SQLITE_READONLY_RECOVERY || (rc & 0xff) == SQLITE_READONLY)
        return path + " has a hot journal (" + path +
               "-journal): a writer was killed in the middle of a commit. Never delete the journal; open the "
               "store "
               "once with write access, and SQLite rolls back: sqlite3 " +
               path + " 'SELECT count(*) FROM sqlite_master'";
    if (is_busy(rc))
        return path + " is locked by another process, longer than was waited for (--wait)";
    if (rc == SQLITE_FULL)
        return no_space_for(copy);
    if ((rc & 0xff) == SQLITE_NOTADB)
        return path + " is no database, or is damaged";
    return path + " cannot be copied: " + sqlite3_errstr(rc) + " (" + sqlite3_errmsg(source) + ")";
}

/* Tells by its progress when the copy began anew. */
class Beginnings
{
public:
    [[nodiscard]] int count(sqlite3_backup *backup)
    {
        const int done = sqlite3_backup_pagecount(backup) - sqlite3_backup_remaining(backup);

        if (done <= done_)
            count_++;
        done_ = done;
        return count_;
    }

private:
    int done_ = 0;
    int count_ = 1;
};

int copy_pages(sqlite3_backup *backup, std::chrono::milliseconds wait)
{
    constexpr std::chrono::milliseconds pause(5);
    Clock::time_point deadline = Clock::now() + wait;
    Beginnings beginnings;
    int pages = pages_of_a_step;
    int rc;

    while ((rc = sqlite3_backup_step(backup, pages)) != SQLITE_DONE) {
        if (rc == SQLITE_OK) {
            if (beginnings.count(backup) >= most_beginnings)
                pages = -1;
            deadline = Clock::now() + wait; /* it is the lock that is waited for, not the copy */
        } else if (!is_busy(rc) || Clock::now() >= deadline) {
            return rc;
        } else {
            std::this_thread::sleep_for(pause);
        }
    }
    return SQLITE_OK;
}

bool is_damage(int rc)
{
    return (rc & 0xff) == SQLITE_NOTADB || (rc & 0xff) == SQLITE_CORRUPT;
}

/* An index that has lost a row hides it from whoever asks by that index: it is damage, too. */
CopyEnding check_copy(sqlite3 *copy, const std::string &path, const TroubleSink &trouble)
{
    SqliteQuery check;
    const bool found = check.prepare(copy, "PRAGMA integrity_check(1)") == 0 && check.next();

    if (found && check.text(0) == "ok")
        return CopyEnding::copied;
    trouble(path + " is damaged (PRAGMA integrity_check): " +
            (found ? std::string(check.text(0).value_or("")) : sqlite3_errmsg(copy)));
    return found || is_damage(sqlite3_errcode(copy)) ? CopyEnding::damaged : CopyEnding::failed;
}

} // namespace

StoreFileKind look_at_store_file(const std::string &path)
{
    const Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    char header[100] = "";

    if (!file.is_open() || ::fstat(file.get(), &status) != 0)
        return errno == ENOENT ? StoreFileKind::missing : StoreFileKind::unreadable;
    if (!S_ISREG(status.st_mode))
        return StoreFileKind::no_file;
    if (status.st_size == 0)
        return StoreFileKind::empty;
    if (::pread(file.get(), header, sizeof header, 0) != sizeof header || !is_database(header))
        return StoreFileKind::no_database;
    return is_in_wal_mode(header) ? StoreFileKind::database_in_wal_mode : StoreFileKind::database;
}

int check_store_file(const std::string &path, const TroubleSink &trouble)
{
    switch (look_at_store_file(path)) {
    case StoreFileKind::database:
        return 0;
    case StoreFileKind::missing:
    case StoreFileKind::unreadable:
        trouble(path + " cannot be read: " + std::strerror(errno));
        break;
    case StoreFileKind::no_file:
        trouble(path + " is no file");
        break;
    case StoreFileKind::empty:
        trouble(path + " is empty: it has no tables");
        break;
    case StoreFileKind::no_database:
        trouble(path + " is no database");
        break;
    case StoreFileKind::database_in_wal_mode:
        trouble(path + " is in WAL mode, in which nobody can read it without writing: sqlite3 " + path +
                " 'PRAGMA journal_mode = DELETE'");
        break;
    }
    return -1;
}

void check_owners(const std::string &responders, const std::string &handlers, const TroubleSink &trouble)
{
    const group *const mail = ::getgrnam("popuser");
    struct stat status;

    if (mail == nullptr) {
        trouble("there is no group popuser, by which the mail server reads the stores");
        return;
    }
    if (::stat(responders.c_str(), &status) == 0 &&
        (status.st_mode & (status.st_gid == mail->gr_gid ? S_IRGRP : S_IROTH)) == 0)
        trouble(responders + " cannot be read by the mail server's group (mode " +
                octal(status.st_mode & 07777) + ", group " + std::to_string(status.st_gid) +
                "): chgrp popuser " + responders + " && chmod g+r " + responders);
    if (::stat(handlers.c_str(), &status) != 0)
        return;
    if (status.st_uid != 0 || status.st_gid != mail->gr_gid)
        trouble(handlers + " belongs to " + std::to_string(status.st_uid) + ":" +
                std::to_string(status.st_gid) + ", not to root:popuser: chown root:popuser " + handlers);
    if ((status.st_mode & 07777) != 0640)
        trouble(handlers + " has mode " + octal(status.st_mode & 07777) + ", not 0640: chmod 0640 " +
                handlers);
}

/* The empty name is SQLite's for a file of its own that has none. */
SqliteConnection open_private_database(const TroubleSink &trouble)
{
    sqlite3 *db = nullptr;
    int rc = sqlite3_open_v2("", &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    SqliteConnection opened(db);

    if (rc == SQLITE_OK)
        rc = sqlite3_exec(db, "PRAGMA journal_mode = OFF; PRAGMA cache_size = -1024", nullptr, nullptr,
                          nullptr);
    if (rc == SQLITE_OK)
        return opened;
    trouble(std::string("no private copy can be made: ") + sqlite3_errstr(rc));
    return nullptr;
}

CopyEnding copy_database(const std::string &path, std::chrono::milliseconds wait, sqlite3 *copy,
                         const TroubleSink &trouble)
{
    SqliteConnection source;

    if (open_source(path, &source, trouble) != 0)
        return CopyEnding::failed;
    (void)sqlite3_exec(source.get(), "PRAGMA cache_size = -64", nullptr, nullptr, nullptr);

    Backup backup(sqlite3_backup_init(copy, "main", source.get(), "main"));

    if (backup == nullptr) {
        trouble(std::string("no private copy can be made: ") + sqlite3_errmsg(copy));
        return CopyEnding::failed;
    }

    const int rc = copy_pages(backup.get(), wait);

    backup.reset();
    if (rc == SQLITE_OK)
        return check_copy(copy, path, trouble);
    trouble(copy_failure(path, rc, source.get(), copy));
    return is_damage(rc) ? CopyEnding::damaged : CopyEnding::failed;
}

SqliteConnection copy_store(const std::string &path, std::chrono::milliseconds wait,
                            const TroubleSink &trouble)
{
    SqliteConnection copy = open_private_database(trouble);

    if (copy != nullptr && copy_database(path, wait, copy.get(), trouble) != CopyEnding::copied)
        copy.reset();
    return copy;
}

} // namespace kolmo
