#include "refresh/killed_writer.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/owned.h"
#include "refresh/store_file.h"

namespace kolmo
{

namespace
{

/* Where SQLite's writers hold their lock (https://www.sqlite.org/fileformat.html, 1.4: the lock-byte page).
 */
constexpr off_t reserved_byte = 0x40000001;

/* The journal's inode, or 0 when there is none with a header in it. */
ino_t journal_in_use(const std::string &path)
{
    const Fd journal(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    char first = 0;

    if (!journal.is_open() || ::fstat(journal.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        ::pread(journal.get(), &first, 1, 0) != 1 || first == 0)
        return 0;
    return status.st_ino;
}

bool has_writer(const std::string &path)
{
    const Fd store(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct flock lock = {};

    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = reserved_byte;
    lock.l_len = 1;
    return store.is_open() && ::fcntl(store.get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

/* One whose header was not yet written is not rolled back from, and stays until the next writer takes it. */
bool is_needed(const std::string &path)
{
    const Fd journal(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    char first = 0;

    if (!journal.is_open())
        return errno != ENOENT;
    return ::pread(journal.get(), &first, 1, 0) < 0 || first != 0;
}

/* SQLite's own names: "-mj", six digits of chance, a 9 so that no name of eight and three letters is met, two
   more digits. */
bool is_list(const std::filesystem::directory_entry &entry, const std::string &store)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    const std::string name = entry.path().filename().string();
    const std::string start = store + "-mj";
    std::error_code error;

    return name.starts_with(start) && name.size() == start.size() + 9 && name[start.size() + 6] == '9' &&
           name.find_first_not_of(digits, start.size()) == std::string::npos &&
           std::filesystem::is_regular_file(entry.symlink_status(error));
}

bool names_a_journal(const std::filesystem::path &list)
{
    std::ifstream file(list, std::ios::binary);
    std::string name;

    while (std::getline(file, name, '\0'))
        if (!name.empty() && is_needed(name))
            return true;
    return false;
}

} // namespace

/* A writer has its lock before its journal, and removes the journal first.  Nothing can be rolled back in a
   file without a page. */
bool has_hot_journal(const std::string &path)
{
    const std::string journal = real_path(path) + "-journal";

    if (is_missing_or_empty(path))
        return false;

    const ino_t before = journal_in_use(journal);

    return before != 0 && !has_writer(path) && journal_in_use(journal) == before;
}

std::vector<std::string> stale_journal_lists(const std::string &path)
{
    const std::filesystem::path store(real_path(path));
    std::vector<std::string> lists;
    std::error_code error;
    std::filesystem::directory_iterator entry(store.parent_path(), error);

    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error))
        if (is_list(*entry, store.filename().string()) && !names_a_journal(entry->path()))
            lists.push_back(entry->path().string());
    return lists;
}

} // namespace kolmo
