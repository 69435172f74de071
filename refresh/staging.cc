#include "refresh/staging.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "common/owned.h"
#include "handlers_store/handlers_db.h"
#include "refresh/folder.h"
#include "refresh/interruption.h"
#include "refresh/staging_size.h"
#include "responder_store/responder_db.h"
#include "verify/sqlite_query.h"

namespace kolmo
{

namespace
{

namespace fs = std::filesystem;

const char memory_parent[] = "/run";

std::string reason()
{
    return std::strerror(errno);
}

std::string mebibytes(std::uint64_t bytes)
{
    return std::to_string((bytes + (1 << 20) - 1) >> 20) + " MiB";
}

std::string without_links(const std::string &path)
{
    const OwnedText real(::realpath(path.c_str(), nullptr));

    return real != nullptr ? real.get() : "";
}

/* The first folder on the way up in which somebody beside root can rename what is root's; empty when there is
   none.  Root is who owns "/": in a user namespace its number may be another one. */
std::string foreign_folder(const fs::path &path)
{
    struct stat root;
    struct stat status;

    if (::stat("/", &root) != 0)
        return "/";
    for (fs::path folder = path;; folder = folder.parent_path()) {
        if (::lstat(folder.c_str(), &status) != 0)
            return folder;

        const bool is_roots = status.st_uid == root.st_uid || status.st_uid == ::geteuid();

        if (!is_roots || ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (status.st_mode & S_ISVTX) == 0))
            return folder;
        if (!folder.has_relative_path())
            return "";
    }
}

/* A folder as the one of a live store is. */
int make_like(const std::string &path, const char *live_store, const TroubleSink &trouble)
{
    const std::string live = fs::path(live_store).parent_path();
    struct stat status;

    if (::stat(live.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        trouble("the folder " + live +
                " is missing, over which the staging is laid: make it as the panel had it, with owner "
                "and mode");
        return -1;
    }
    if (::mkdir(path.c_str(), 0700) != 0 || ::chown(path.c_str(), status.st_uid, status.st_gid) != 0 ||
        ::chmod(path.c_str(), status.st_mode & 07777) != 0) {
        trouble("the staging folder " + path + " cannot be made: " + reason());
        return -1;
    }
    return 0;
}

} // namespace

int Staging::enter_own_mounts(const TroubleSink &trouble)
{
    if (::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_SLAVE | MS_REC, nullptr) == 0)
        return 0;
    trouble(
        "no mount namespace of its own can be had (" + reason() +
        "), as in a container without CAP_SYS_ADMIN: there is only mail_responders_rebuild, which empties "
        "the live responder store before it fills it");
    return -1;
}

int Staging::make(const std::string &parent, std::uint64_t size, const TroubleSink &trouble)
{
    if (parent.empty())
        return make_in_memory(size, trouble);

    const std::string real = without_links(parent);
    struct statvfs status;

    if (real.find('\n') != std::string::npos) { /* the lock's file has it in one line */
        trouble(parent + " cannot be staged in: " + std::strerror(EINVAL));
        return -1;
    }

    if (real.empty() || ::statvfs(real.c_str(), &status) != 0) {
        trouble(parent + " cannot be staged in: " + reason());
        return -1;
    }

    if (const std::string foreign = foreign_folder(real); !foreign.empty()) {
        trouble(parent + " cannot be staged in: others than root can put something else in its place, as " +
                foreign + " is theirs, or writable for them");
        return -1;
    }

    const std::uint64_t free = std::uint64_t{status.f_bavail} * status.f_frsize;

    if (free < size) {
        trouble(parent + " has no room for the staging: " + mebibytes(size) + " are needed, " +
                mebibytes(free) + " are free");
        return -1;
    }
    return make_folder(real, trouble);
}

int Staging::make_in_memory(std::uint64_t size, const TroubleSink &trouble)
{
    const std::uint64_t available = available_memory();

    if (available < size) {
        trouble("there is not enough memory for the staging: " + mebibytes(size) + " are needed, " +
                mebibytes(available) + " are available; --stage DIR stages in a folder");
        return -1;
    }
    if (make_folder(memory_parent, trouble) != 0)
        return -1;

    /* What is not written takes nothing: twice the need, as far as there is so much. */
    const std::string options = "mode=0700,size=" + std::to_string(std::min(2 * size, available));

    if (::mount("tmpfs", path_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
        trouble("no memory can be mounted at " + path_ + ": " + reason());
        return -1;
    }
    return 0;
}

int Staging::make_folder(const std::string &parent, const TroubleSink &trouble)
{
    path_ = new_staging_path(parent);
    if (path_.size() >= PATH_MAX) {
        path_.clear();
        trouble(parent + " cannot be staged in: " + std::strerror(ENAMETOOLONG));
        return -1;
    }
    set_folder_to_remove(path_.c_str());
    if (lock_->note_folder(path_) == 0 && ::mkdir(path_.c_str(), 0700) == 0 &&
        ::chmod(path_.c_str(), 0700) == 0)
        return 0;
    trouble("the staging folder " + path_ + " cannot be made: " + reason());
    return -1;
}

int Staging::prepare(const TroubleSink &trouble)
{
    if (empty_staging_folder(path_.c_str()) != 0) {
        trouble("the staging folder " + path_ + " cannot be emptied: " + reason());
        return -1;
    }
    if (make_like(responder_folder(), responder_db_path, trouble) != 0)
        return -1;
    return make_like(handlers_folder(), handlers_db_path, trouble);
}

int Staging::adopt_handlers(const TroubleSink &trouble)
{
    const std::string staged = paths().staged_handlers;
    struct stat status;

    if (::stat(handlers_db_path, &status) == 0 &&
        ::chown(staged.c_str(), status.st_uid, status.st_gid) == 0 &&
        ::chmod(staged.c_str(), status.st_mode & 07777) == 0)
        return 0;
    trouble("the staged handlers store cannot be given the live one's owner and mode: " + reason());
    return -1;
}

void Staging::roll_back() const
{
    for (const std::string &path : {paths().staged_responder, paths().staged_handlers}) {
        sqlite3 *db = nullptr;
        SqliteQuery any;

        (void)sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);

        const SqliteConnection connection(db);

        (void)(any.prepare(db, "SELECT count(*) FROM sqlite_master") == 0 && any.next());
    }
}

PublishPaths Staging::paths() const
{
    return {.live_responder = responder_db_path,
            .live_handlers = handlers_db_path,
            .staged_responder = responder_folder() + '/' + fs::path(responder_db_path).filename().string(),
            .staged_handlers = handlers_folder() + '/' + fs::path(handlers_db_path).filename().string(),
            .handlers_before = path_ + "/handlers-before.db"};
}

bool Staging::is_full() const
{
    struct statvfs status;

    return ::statvfs(path_.c_str(), &status) == 0 && status.f_bavail == 0;
}

Staging::~Staging()
{
    if (path_.empty())
        return;

    const bool is_gone = remove_staging_folder(path_.c_str()) == 0;

    set_folder_to_remove("");
    if (is_gone) /* otherwise the next one tries, and tells */
        (void)lock_->note_folder("");
}

} // namespace kolmo
