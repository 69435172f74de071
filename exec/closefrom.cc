#include "exec/closefrom.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <unistd.h>

#include "common/owned.h"

namespace kolmo
{

namespace
{

using OwnedDirectory = std::unique_ptr<DIR, Release<::closedir>>;

/* The descriptor that an entry's name stands for, or -1 when it is not a plain decimal number. */
int descriptor_number(const char *name)
{
    const char *end = name + std::strlen(name);
    int number = -1; /* as it remains when the digits mean more than an int */

    if (name[0] < '0' || name[0] > '9' || (name[0] == '0' && name[1] != '\0'))
        return -1;
    return std::from_chars(name, end, number).ptr == end ? number : -1;
}

/* How many entries are read before closing the whole table is thought to be the shorter way. */
int entry_budget(int table_size)
{
    return table_size >= 1000 ? table_size / 10 : 100;
}

/* True when the directory was read to its end and made sense; what it listed until then is closed. */
bool close_entries(DIR *directory, int lowest)
{
    const int own = ::dirfd(directory);
    const int table_size = ::getdtablesize();
    bool listed_itself = false;

    for (int left = entry_budget(table_size); left > 0; left--) {
        errno = 0; /* null is the end and the failure of readdir alike */
        /* readdir_r would be no safer with one thread, and the C library has deprecated it (2.24). */
        const dirent *entry = ::readdir(directory);
        if (entry == nullptr)
            return errno == 0 && listed_itself;
        if (entry->d_name[0] == '.')
            continue;
        const int fd = descriptor_number(entry->d_name);
        if (fd < 0 || fd >= table_size)
            return false;
        if (fd == own)
            listed_itself = true;
        else if (fd >= lowest)
            (void)::close(fd);
    }
    return false;
}

bool close_listed(int lowest)
{
    const OwnedDirectory directory(::opendir("/proc/self/fd"));

    return directory != nullptr && close_entries(directory.get(), lowest);
}

} // namespace

void closefrom(int lowest)
{
    const KeepErrno errno_kept;

    lowest = std::max(lowest, 0);
    if (close_listed(lowest))
        return;
    for (int fd = ::getdtablesize(); fd >= lowest; fd--)
        (void)::close(fd);
}

} // namespace kolmo
