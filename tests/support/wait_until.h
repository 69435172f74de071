/*
 * wait_until: for what another process brings about.
 */
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace kolmo::testing
{

/* Half a minute at most, as what has not come by then never will: that fails the test. */
inline void wait_until(const std::function<bool()> &has_come, const std::string &what)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);

    while (!has_come()) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "in vain: " << what;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

} // namespace kolmo::testing
