#include "refresh/folder.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/owned.h"

namespace kolmo
{

namespace
{

/* The stores' folders are one level down; what a utility may have made there is hardly deeper. */
constexpr int deepest = 16;

constexpr int folder_flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool is_dots(const char *name)
{
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

int empty_folder(int folder, int depth) noexcept;

int remove_entry(int folder, const char *name, int depth) noexcept
{
    if (::unlinkat(folder, name, 0) == 0)
        return 0;
    if ((errno != EISDIR && errno != EPERM) || depth == 0)
        return -1;

    const Fd inner(::openat(folder, name, folder_flags));

    if (!inner.is_open() || empty_folder(inner.get(), depth - 1) != 0)
        return -1;
    return ::unlinkat(folder, name, AT_REMOVEDIR);
}

/* Reads from the beginning until nothing is there: removing may move what was not yet read. */
int empty_folder(int folder, int depth) noexcept
{
    alignas(dirent64) char entries[2048];
    ssize_t length;
    bool removed = false;

    if (::lseek(folder, 0, SEEK_SET) != 0)
        return -1;
    while ((length = ::getdents64(folder, entries, sizeof entries)) > 0) {
        for (ssize_t at = 0; at < length;) {
            const auto *const entry = reinterpret_cast<const dirent64 *>(entries + at);

            at += entry->d_reclen;
            if (is_dots(entry->d_name))
                continue;
            if (remove_entry(folder, entry->d_name, depth) != 0)
                return -1;
            removed = true;
        }
    }
    if (length < 0)
        return -1;
    return removed ? empty_folder(folder, depth) : 0;
}

bool has_prefix(const char *path)
{
    const char *const slash = std::strrchr(path, '/');

    return slash != nullptr && std::strncmp(slash + 1, staging_prefix, sizeof staging_prefix - 1) == 0;
}

/* The folder, open; none, with errno set, when it is not a refresh's. */
Fd open_ours(const char *path) noexcept
{
    struct stat status;
    Fd folder(::open(path, folder_flags));

    if (!folder.is_open())
        return folder;
    if (!has_prefix(path) || ::fstat(folder.get(), &status) != 0 || status.st_uid != ::geteuid() ||
        (status.st_mode & 07777) != 0700) {
        folder.reset();
        errno = EPERM;
    }
    return folder;
}

} // namespace

std::string new_staging_path(const std::string &parent)
{
    std::uint64_t chance = 0;
    std::string path = parent + '/' + staging_prefix;

    (void)!::getrandom(&chance, sizeof chance, 0);
    for (int shift = 60; shift >= 0; shift -= 4)
        path += "0123456789abcdef"[(chance >> shift) & 15];
    return path;
}

int empty_staging_folder(const char *path) noexcept
{
    const Fd folder = open_ours(path);

    return folder.is_open() ? empty_folder(folder.get(), deepest) : -1;
}

int remove_staging_folder(const char *path) noexcept
{
    if (!has_prefix(path)) {
        errno = EPERM;
        return -1;
    }
    while (::umount2(path, MNT_DETACH | UMOUNT_NOFOLLOW) == 0)
        ;
    if (empty_staging_folder(path) != 0)
        return errno == ENOENT ? 0 : -1;
    return ::rmdir(path);
}

} // namespace kolmo
