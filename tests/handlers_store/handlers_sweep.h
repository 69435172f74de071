/*
 * handlers_sweep: a sweep over an operation on the handlers store, and the rows of its statements.
 */
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tests/handlers_store/handlers_texts.h"
#include "tests/support/handlers_store_fixture.h"
#include "tests/support/store_sweep.h"

namespace kolmo::testing
{

/* Looked at are the handlers, unless a test has something else. */
class HandlersSweep : public HandlersStoreTest, protected StoreSweep
{
protected:
    HandlersSweep() : StoreSweep(store, log) {}

    [[nodiscard]] Lines contents() override { return store.handlers(); }
};

/* A statement's prepare and then its parameters, each with the name by which it is reported and its value. */
[[nodiscard]] inline FaultTable
handlers_statement(const std::string &sql, const std::vector<std::pair<std::string, std::string>> &parameters,
                   const Lines &contents, const Lines &also_logged = {})
{
    const std::string kind = sql.substr(0, sql.find(' ')); /* SELECT, INSERT or DELETE */
    Bound bound;

    for (const auto &[name, value] : parameters)
        bound.emplace_back(value, "Unable to bind parameter '" + name + "' to the '" + kind + "' query: ");
    return statement_rows(sql, bound, contents, also_logged);
}

} // namespace kolmo::testing
