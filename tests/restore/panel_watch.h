/*
 * panel_watch: what is asked of the panel's database, and results that cannot be fetched.
 *
 * For a test program that wraps mysql_real_query, mysql_store_result and mysql_free_result (-Wl,--wrap=, see
 * CMakeLists.txt).
 * The real library and the real server are always underneath.  PanelDatabase's own statements come through
 * here too: fill the tables first.
 */
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kolmo::testing
{

class PanelWatch
{
public:
    PanelWatch();

    /* The test fails when the result that had to get lost was never fetched. */
    ~PanelWatch();
    PanelWatch(const PanelWatch &) = delete;
    PanelWatch &operator=(const PanelWatch &) = delete;

    /* The queries so far, as many bytes of each as were sent. */
    std::vector<std::string> queries;

    /* What is done when a result's rows are freed. */
    std::function<void()> on_free;

    /* The nth result from now on gets lost on its way: null, and an empty error text. */
    void lose_result(int nth) { results_to_loss_ = nth; }

private:
    friend struct PanelWatchCalls;

    int results_to_loss_ = 0;
};

} // namespace kolmo::testing
