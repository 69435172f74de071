/*
 * sandbox: whether this process may write to the panel's absolute paths and to the panel's database.
 *
 * Tests of whole runs do, and outside of tools/sandbox that would be the host's own mail server: every such
 * test starts with ASSERT_TRUE(in_sandbox()).
 */
#pragma once

#include <cstdlib>
#include <string>

namespace kolmo::testing
{

/* A variable that tools/sandbox sets, empty when it does not. */
inline std::string sandbox_variable(const char *name)
{
    const char *const value = std::getenv(name);

    return value != nullptr ? value : "";
}

inline bool in_sandbox()
{
    return sandbox_variable("KOLMO_SANDBOX") == "1";
}

} // namespace kolmo::testing
