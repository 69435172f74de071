/* Creating the store while a pause fails; what else can fail is in handlers_db_file_faults_test.cc. */
#include <gtest/gtest.h>

#include "handlers_store/handlers_db.h"
#include "tests/support/handlers_store_fixture.h"
#include "tests/support/sqlite_faults.h"

namespace kolmo
{

namespace
{

using namespace testing;

using CreatePauses = HandlersStoreTest;

/* Its connection is still open, perhaps with a transaction: the file is not this process's to remove. */
TEST_F(CreatePauses, FailedPauseOfTheSchemaLeavesTheFile)
{
    store.remove();
    SqliteFaults faults;

    faults.be_busy(SqliteCall::exec, 1);
    faults.fail_pause(1);
    EXPECT_EQ(handlers_db_create(), -1);
    EXPECT_EQ(faults.open_connections().size(), 1U);
    EXPECT_TRUE(store.exists());
}

} // namespace

} // namespace kolmo
