#include "tests/restore/restore_fixture.h"

#include "tests/support/sandbox.h"

namespace kolmo::testing
{

void RestoreTest::SetUp()
{
    ASSERT_TRUE(in_sandbox());
    panel.reset();
    panel_db = mysql_init(nullptr);
    ASSERT_NE(mysql_real_connect(panel_db, "localhost", "admin",
                                 sandbox_variable("KOLMO_SANDBOX_PASSWORD").c_str(), "qsx", 0,
                                 sandbox_variable("KOLMO_SANDBOX_SOCKET").c_str(), 0),
              nullptr)
        << mysql_error(panel_db);
    responder_db = store.open();
}

void RestoreTest::TearDown()
{
    responder_db = StoreConnection();
    mysql_close(panel_db);
    panel_db = nullptr;
}

void RestoreTest::refuse_rows(const std::string &table) const
{
    store.execute("CREATE TRIGGER refuse_" + table + " BEFORE INSERT ON " + table +
                  " BEGIN SELECT RAISE(ABORT, 'refused'); END");
}

} // namespace kolmo::testing
