#include "refresh/store_file.h"

#include <filesystem>
#include <system_error>

#include <sys/stat.h>

namespace kolmo
{

std::string real_path(const std::string &path)
{
    std::error_code error;
    const std::filesystem::path real = std::filesystem::weakly_canonical(path, error);

    return error ? path : real.string();
}

bool is_link(const std::string &path)
{
    struct stat status;

    return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool is_missing_or_empty(const std::string &path)
{
    struct stat status;

    return ::stat(path.c_str(), &status) != 0 || status.st_size == 0;
}

} // namespace kolmo
