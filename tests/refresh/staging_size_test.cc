/* How much room there is, as the kernel's files tell it. */
#include "refresh/staging_size.h"

#include <filesystem>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace kolmo
{

namespace
{

using testing::TempDir;

constexpr std::uint64_t no_limit = std::numeric_limits<std::uint64_t>::max();

struct MemoryRow {
    const char *what;
    std::vector<std::pair<std::string, std::string>> files;
    std::uint64_t available;
};

const MemoryRow memory_rows[] = {
    {"nothing that can be read", {}, no_limit},
    {"the machine", {{"proc/meminfo", "MemTotal: 900 kB\nMemAvailable:    400 kB\nCached: 1 kB\n"}}, 409600},
    {"a kernel that does not tell", {{"proc/meminfo", "MemTotal: 900 kB\n"}}, no_limit},
    {"a group with less",
     {{"proc/meminfo", "MemAvailable: 400 kB\n"},
      {"proc/self/cgroup", "4:memory:/old\n0::/system.slice/refresh.service\n"},
      {"group/system.slice/refresh.service/memory.max", "100000\n"},
      {"group/system.slice/refresh.service/memory.current", "60000\n"},
      {"group/system.slice/refresh.service/memory.stat", "anon 50000\ninactive_file 10000\n"}},
     50000},
    {"a group above it with less",
     {{"proc/self/cgroup", "0::/a/b\n"},
      {"group/a/memory.max", "5000\n"},
      {"group/a/memory.current", "1000\n"},
      {"group/a/b/memory.max", "max\n"},
      {"group/a/b/memory.current", "1000\n"}},
     4000},
    {"a group that is over its limit",
     {{"proc/self/cgroup", "0::/a\n"}, {"group/a/memory.max", "10\n"}, {"group/a/memory.current", "20\n"}},
     0},
    {"what a container takes for the root of all groups",
     {{"proc/self/cgroup", "0::/a\n"}, {"group/memory.max", "5000\n"}, {"group/memory.current", "1000\n"}},
     4000},
    {"the root of all groups",
     {{"proc/meminfo", "MemAvailable: 1 kB\n"}, {"proc/self/cgroup", "0::/\n"}},
     1024},
};

TEST(AvailableMemory, IsTheLeastThatTheKernelAndTheGroupsLeave)
{
    for (const MemoryRow &row : memory_rows) {
        const TempDir folder;

        SCOPED_TRACE(row.what);
        for (const auto &[name, content] : row.files) {
            std::filesystem::create_directories(std::filesystem::path(folder.path(name)).parent_path());
            (void)folder.write(name, content);
        }
        EXPECT_EQ(available_memory(folder.path("proc"), folder.path("group")), row.available);
    }
}

TEST(StagingSize, GrowsWithThePanelAndWithTheStoresThatAreThere)
{
    const TempDir folder;
    const std::string big = folder.write("big.db", std::string(1 << 20, 'x'));
    const std::string none = folder.path("none.db");
    const std::uint64_t least = staging_size({}, none, none);

    EXPECT_GE(staging_size({}, big, none), least + (1 << 20));
    EXPECT_GE(staging_size({}, none, big), least + 2 * (1 << 20)); /* it is copied twice */
    EXPECT_GE(staging_size({1000, 1 << 20}, none, none), least + (1 << 20) + 1000 * 1024);
}

} // namespace

} // namespace kolmo
