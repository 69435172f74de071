#include "tests/support/temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <gtest/gtest.h>
#include <unistd.h>

namespace kolmo::testing
{

namespace
{

/* In memory if nobody has chosen another place: no test looks at what a disk keeps, and stores sync a lot. */
std::filesystem::path base()
{
    const char *const memory = "/dev/shm";

    if (std::getenv("TMPDIR") == nullptr && access(memory, W_OK | X_OK) == 0)
        return memory;
    return std::filesystem::temp_directory_path();
}

} // namespace

TempDir::TempDir() : path_((base() / "kolmo-test-XXXXXX").string())
{
    if (mkdtemp(path_.data()) == nullptr)
        ADD_FAILURE() << "no temporary folder: " << path_;
}

TempDir::~TempDir()
{
    std::error_code ignored;

    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(std::string_view name, std::string_view content) const
{
    const std::string file = path(name);
    std::ofstream stream(file, std::ios::binary);

    stream.write(content.data(), static_cast<std::streamsize>(content.size()));
    stream.close();
    EXPECT_TRUE(stream.good()) << file;
    return file;
}

} // namespace kolmo::testing
