/*
 * temp_dir: a folder of a test's own, removed with all that is in it.  It lies in memory (/dev/shm) unless
 * TMPDIR says where.
 */
#pragma once

#include <string>
#include <string_view>

namespace kolmo::testing
{

class TempDir
{
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    [[nodiscard]] const std::string &path() const { return path_; }

    /* The path of an entry in the folder. */
    [[nodiscard]] std::string path(std::string_view name) const { return path_ + '/' + std::string(name); }

    /* Writes a file in the folder; returns its path. */
    std::string write(std::string_view name, std::string_view content) const;

private:
    std::string path_;
};

} // namespace kolmo::testing
