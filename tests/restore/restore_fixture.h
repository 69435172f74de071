/*
 * restore_fixture: the run's two connections, open on a responder store of the test's own and on the panel's
 * database in the sandbox, and a handlers store of the test's own.
 */
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "restore/run_handles.h"
#include "tests/support/handlers_store_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/support/panel_database.h"
#include "tests/support/responder_store_fixture.h"

namespace kolmo::testing
{

/* Every logged line must be announced; outside of the sandbox every test fails. */
class RestoreTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    /* From now on no row of the table is accepted, with the text "refused". */
    void refuse_rows(const std::string &table) const;

    /* The addresses of all handlers, sorted. */
    [[nodiscard]] Lines handler_addresses() const { return handlers.query("SELECT address FROM handlers"); }

    LogCapture log;
    ResponderStore store;
    HandlersStore handlers;
    PanelDatabase panel;
};

} // namespace kolmo::testing
