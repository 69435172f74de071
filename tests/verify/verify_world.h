/*
 * verify_world: a panel, both stores on their real paths, rebuilds of them and looks at them.
 */
#pragma once

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/run/panel_world.h"
#include "tests/support/panel_database.h"
#include "verify/verify.h"

namespace kolmo::testing
{

using Lines = std::vector<std::string>;

/* What verify_stores said. */
struct Look {
    int status = -1;
    Lines findings; /* as line_of() writes them, sorted */
    Lines commands; /* of the findings that have one */
    Lines troubles;
    Lines notes;
    VerifySummary summary;

    [[nodiscard]] bool has(const std::string &code) const;

    /* The codes' names, each once. */
    [[nodiscard]] Lines codes() const;
};

/* "CODE remedy address column: expected > found", without what does not apply. */
std::string line_of(const Finding &finding);

/* A look on a connection of its own. */
Look look(const VerifyOptions &options = {});

/* A rebuild in this process. */
struct Rebuild {
    int status = -1;
    std::string said; /* on standard error */
};
Rebuild rebuild();

/* Runs a line in the shell; it must succeed. */
void run_shell(const std::string &command);

/* Statements that put rows into the panel; ids are the caller's. */
std::string sql_domain(int id, const std::string &name);
std::string sql_alias(int domain, const std::string &name);
std::string sql_mailbox(int id, int domain, const std::string &name); /* that answers */
std::string sql_reply(int mailbox,
                      const std::string &subject = "Away"); /* its id is the mailbox's plus 1000 */
std::string sql_answering(int id, int domain, const std::string &name); /* both */
std::string sql_headers(const std::string &json);
std::string sql_many_domains(int count); /* with a mailbox each that answers; ids above 1000 */

/* Of an environment variable. */
int number_from_environment(const char *name, int fallback);

/* The same throws for the same seed. */
class Dice
{
public:
    explicit Dice(unsigned int seed) : random_(seed) {}

    int upto(int most) { return std::uniform_int_distribution<int>(0, most)(random_); }
    bool one_in(int n) { return upto(n - 1) == 0; }
    void shuffle(Lines *lines) { std::shuffle(lines->begin(), lines->end(), random_); }

private:
    std::mt19937 random_;
};

class VerifyTest : public ::testing::Test
{
protected:
    void SetUp() override;

    /* The panel's rows are gone, the tables are as they were. */
    void clear_panel();

    std::unique_ptr<PanelDatabase> panel;
};

} // namespace kolmo::testing
