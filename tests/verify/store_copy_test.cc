/* The clock is the test's own: it ticks once whenever it is asked. */
#include "verify/store_copy.h"

#include <chrono>

#include <gtest/gtest.h>

#include "tests/support/store_file.h"
#include "tests/support/temp_dir.h"

namespace kolmo
{

namespace
{

using namespace testing;

bool is_fake = false;
std::chrono::seconds now;
int steps = 0;

/* A store that takes several steps. */
std::string big_store(const TempDir &folder)
{
    const std::string path = folder.path("store.db");
    sqlite3 *store = nullptr;

    EXPECT_EQ(sqlite3_open(path.c_str(), &store), SQLITE_OK);
    (void)result_rows(store, "CREATE TABLE t (x); INSERT INTO t VALUES (zeroblob(20000000))");
    EXPECT_EQ(sqlite3_close(store), SQLITE_OK);
    return path;
}

TEST(StoreCopy, WaitsForALockAndNotForItsOwnTime)
{
    const TempDir folder;
    const std::string path = big_store(folder);
    const auto fail = [](const std::string &trouble) {
        ADD_FAILURE() << trouble;
    };
    SqliteConnection copy = open_private_database(fail);

    is_fake = true;
    EXPECT_EQ(copy_database(path, std::chrono::seconds(5), copy.get(), fail), CopyEnding::copied);
    is_fake = false;
    EXPECT_GT(now, std::chrono::seconds(10));
}

} // namespace

extern "C" {

int __real_sqlite3_backup_step(sqlite3_backup *backup, int pages);

/* Every second one meets a lock. */
int __wrap_sqlite3_backup_step(sqlite3_backup *backup, int pages)
{
    return is_fake && steps++ % 2 != 0 ? SQLITE_BUSY : __real_sqlite3_backup_step(backup, pages);
}

} // extern "C"

/* By the names that the linker looks for: C's functions return no class. */
std::chrono::steady_clock::time_point real_now() __asm__("__real__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::steady_clock::time_point ticking_now() __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");

std::chrono::steady_clock::time_point ticking_now()
{
    if (!is_fake)
        return real_now();
    now += std::chrono::seconds(1);
    return std::chrono::steady_clock::time_point(now);
}

} // namespace kolmo
