#include "refresh/file_replacement.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/owned.h"
#include "refresh/store_file.h"

namespace kolmo
{

namespace
{

int write_all(int to, const char *bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(to, bytes, size);

        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return -1;
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return 0;
}

int copy_bytes(int from, int to)
{
    std::array<char, 65536> buffer;

    for (;;) {
        const ssize_t size = ::read(from, buffer.data(), buffer.size());

        if (size < 0 && errno == EINTR)
            continue;
        if (size <= 0)
            return static_cast<int>(size);
        if (write_all(to, buffer.data(), static_cast<std::size_t>(size)) != 0)
            return -1;
    }
}

/* The owner first: giving a file away takes bits from its mode. */
int copy_owner_and_mode(int from, int to)
{
    struct stat status;

    if (::fstat(from, &status) != 0 || ::fchown(to, status.st_uid, status.st_gid) != 0)
        return -1;
    return ::fchmod(to, status.st_mode & 07777);
}

int remove_if_there(const std::string &path)
{
    return ::unlink(path.c_str()) == 0 || errno == ENOENT ? 0 : -1;
}

} // namespace

std::string FileReplacement::waiting_path(const std::string &path)
{
    return real_path(path) + "-refresh";
}

FileReplacement::FileReplacement(const std::string &path)
    : path_(real_path(path)), waiting_(waiting_path(path))
{
    (void)remove_if_there(waiting_);
}

FileReplacement::~FileReplacement()
{
    if (is_waiting_)
        (void)remove_if_there(waiting_);
}

int FileReplacement::prepare(const std::string &source, const TroubleSink &trouble)
{
    const Fd from(::open(source.c_str(), O_RDONLY | O_CLOEXEC));

    if (!from.is_open()) {
        trouble(source + " cannot be read: " + std::strerror(errno));
        return -1;
    }

    const Fd to(::open(waiting_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));

    is_waiting_ = to.is_open();
    if (to.is_open() && copy_bytes(from.get(), to.get()) == 0 &&
        copy_owner_and_mode(from.get(), to.get()) == 0 && ::fsync(to.get()) == 0)
        return 0;
    trouble(waiting_ + " cannot be written: " + std::strerror(errno));
    return -1;
}

int FileReplacement::sync_folder() const
{
    const std::string folder = std::filesystem::path(path_).parent_path();
    const Fd opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));

    return opened.is_open() ? ::fsync(opened.get()) : -1;
}

/* The journal's going must be on the disk before the new name is. */
int FileReplacement::install(const TroubleSink &trouble)
{
    int result = 0;

    for (const char *const suffix : {"-journal", "-wal", "-shm"})
        result = result == 0 ? remove_if_there(path_ + suffix) : result;
    if (result == 0 && sync_folder() == 0 && ::rename(waiting_.c_str(), path_.c_str()) == 0) {
        is_waiting_ = false;
        is_installed_ = true;
        if (sync_folder() == 0)
            return 0;
    }
    trouble(path_ + " cannot be replaced: " + std::strerror(errno));
    return -1;
}

} // namespace kolmo
