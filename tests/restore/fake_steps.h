/*
 * fake_steps: everything that a run is made of, replaced but for the log and the responder store.
 *
 * For a test program that wraps these calls (-Wl,--wrap=, see CMakeLists.txt): the utility runner, the
 * connection to the panel, the client library, and the steps per domain, per alias and for the extra headers.
 * Each notes itself, in words and in order, and answers as the test has set it.
 */
#ifndef KOLMO_TESTS_RESTORE_FAKE_STEPS_H
#define KOLMO_TESTS_RESTORE_FAKE_STEPS_H

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <mysql.h>

namespace kolmo::testing
{

struct FakeDomain {
    std::string id;
    std::string name;
};

class FakeSteps
{
public:
    FakeSteps();
    ~FakeSteps();
    FakeSteps(const FakeSteps &) = delete;
    FakeSteps &operator=(const FakeSteps &) = delete;

    /* The calls so far, each with its arguments. */
    std::vector<std::string> calls;

    /* The same for the state at each of them: "store" and "panel" as far as they are open. */
    std::vector<std::string> states;

    /* What the calls answer. */
    int utility_result = 0;
    bool connects = true;
    int query_result = 0;
    bool has_result = true;
    std::vector<FakeDomain> domains;
    std::map<std::string, int> domain_results; /* by name; 0 for those that are not named */
    std::map<std::string, int> alias_results;
    std::optional<std::string> headers = "";
    int headers_result = 0;

    /* What else the step of a domain does. */
    std::function<void()> in_domain = [] {
    };

    /* The bytes of the query for the domains. */
    std::string query;

    /* The connection that panel_db_connect gives. */
    [[nodiscard]] MYSQL *connection() { return &connection_; }

private:
    friend struct FakeStepCalls;

    MYSQL connection_{};
    MYSQL_RES result_{};
    std::size_t next_domain_ = 0;
    std::array<char *, 2> row_{};
};

} // namespace kolmo::testing

#endif
