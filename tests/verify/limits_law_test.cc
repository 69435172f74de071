/*
 * After a rebuild that ended with 0 no rebuild mends anything, and no handler is too much without its limit,
 * whatever limits the panel meets.
 *
 * KOLMO_VERIFY_PANELS: how many random panels; 100 without it.  KOLMO_VERIFY_SEED: the first one's seed.
 */
#include <cctype>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/verify/verify_world.h"

namespace kolmo
{

namespace
{

using namespace testing;

/* They contain, match or convert to each other, or are alike but for case. */
const Lines domain_names = {"a.test",
                            "A.test",
                            "sub.a.test",
                            "a.test.example",
                            "axb.test",
                            "a_b.test",
                            "o_a.test",
                            "a.tes",
                            "b.test",
                            "B.test",
                            "b.test.example",
                            "c.test",
                            "test",
                            "t",
                            "%.test",
                            "b\xc3\xbc"
                            "cher.test",
                            "xn--bcher-kva.test"};

const Lines mailbox_names = {"info",
                             "Info",
                             "an",
                             "ann",
                             "annb",
                             "x",
                             "",
                             "x y",
                             " x",
                             "z ",
                             "a,b",
                             "a,",
                             "b,c d",
                             "b@c",
                             "@",
                             "a.test",
                             "x.a.test",
                             "%",
                             "_",
                             "'",
                             "\"x\"",
                             "\xc3\xbc",
                             "\xe4\xb8\xad",
                             "\xf0\x9f\x8f\x96",
                             std::string(245, 'g')};

class LimitedPanel : private Dice
{
public:
    using Dice::Dice;

    std::string sql();

private:
    Lines some(Lines names, int most);
    std::string mailbox(int domain, const std::string &name);
    std::string domain(int id, const std::string &name);

    Lines names_; /* of its domains */
    int mailboxes_ = 0;
};

Lines LimitedPanel::some(Lines names, int most)
{
    shuffle(&names);
    names.resize(static_cast<std::size_t>(upto(most)));
    return names;
}

std::string LimitedPanel::mailbox(int domain, const std::string &name)
{
    const int id = ++mailboxes_;
    const std::string number = std::to_string(id);
    std::string rows = sql_mailbox(id, domain, name);

    if (!one_in(40))
        rows += sql_reply(id, "Away " + number + (one_in(6) ? " \xf0\x9f\x8f\x96" : ""));
    if (one_in(40))
        rows += "INSERT INTO mail_resp (id, mn_id, resp_name, subject) VALUES (" + std::to_string(id + 2000) +
                ", " + number + ", 'default', 'Second');";
    if (one_in(2))
        rows += "INSERT INTO resp_attach VALUES (" + std::to_string(id + 1000) + ", '" + number + ".pdf');";
    if (one_in(8))
        rows += "INSERT INTO resp_attach VALUES (" + std::to_string(id + 1000) + ", '\xf0\x9f\x8f\x96" +
                number + "');";
    if (one_in(8))
        rows += "INSERT INTO resp_forward VALUES (" + std::to_string(id + 1000) + ", 'a@x.test'), (" +
                std::to_string(id + 1000) + ", 'b@x.test');";
    return rows;
}

std::string LimitedPanel::domain(int id, const std::string &name)
{
    std::string rows = sql_domain(id, name);

    for (const std::string &alias : some(domain_names, 2))
        rows += sql_alias(id, alias);
    if (one_in(6))
        rows += sql_alias(id, static_cast<char>(std::toupper(name[0])) + name.substr(1));
    for (const std::string &local : one_in(4) ? Lines{"info"} : some(mailbox_names, 4))
        rows += mailbox(id, local);
    if (one_in(3))
        rows +=
            mailbox(id, (one_in(4) ? "@" : "y@") + names_[static_cast<std::size_t>(upto(3)) % names_.size()]);
    return rows;
}

std::string LimitedPanel::sql()
{
    static const int list_limits[] = {4, 5, 6, 7, 8, 10, 16, 1048576, 1048576, 1048576, 1048576, 1048576};
    std::string rows = "SET GLOBAL group_concat_max_len = " +
                       std::to_string(list_limits[upto(static_cast<int>(std::size(list_limits)) - 1)]) + ';';
    int id = 0;

    names_ = some(domain_names, 4);
    for (const std::string &name : names_)
        rows += domain(++id, name);
    return rows;
}

Lines to_rebuild(const Look &seen)
{
    Lines lines = seen.findings;

    std::erase_if(lines, [](const std::string &line) { return line.find(" rebuild ") == std::string::npos; });
    return lines;
}

class LimitsLawTest : public VerifyTest
{
protected:
    void TearDown() override { panel->execute("SET GLOBAL group_concat_max_len = 1048576"); }
};

TEST_F(LimitsLawTest, ARebuildThatEndedWellLeavesNothingThatARebuildMends)
{
    const int count = number_from_environment("KOLMO_VERIFY_PANELS", 100);
    const int first = number_from_environment("KOLMO_VERIFY_SEED", 1);
    int ended_well = 0;
    unsigned long findings = 0;

    /* With an index of the names the server may list a domain's mailboxes in another order for the look than
       for the rebuild: it chooses by statistics that it gathers meanwhile. */
    panel->execute("ALTER TABLE mail DROP KEY dom_id, MODIFY mail_name VARCHAR(245) COLLATE utf8mb4_bin;"
                   "ALTER TABLE domains MODIFY name VARCHAR(255) COLLATE utf8mb4_bin;"
                   "ALTER TABLE domain_aliases DROP PRIMARY KEY;"
                   "ALTER TABLE mail_resp DROP KEY mn_id; SET autocommit = 0");
    for (int seed = first; seed < first + count && !HasFailure(); seed++) {
        SCOPED_TRACE("KOLMO_VERIFY_SEED=" + std::to_string(seed));
        clear_panel();
        panel->execute(LimitedPanel(static_cast<unsigned int>(seed)).sql() + "COMMIT");
        change_store(handlers_store, "DELETE FROM handlers WHERE name = 'autoresponder'");
        if (rebuild().status != 0)
            continue;

        const Look seen = look();

        EXPECT_EQ(to_rebuild(seen), Lines{});
        EXPECT_EQ(seen.summary.rebuild, 0u);
        EXPECT_EQ(seen.commands, Lines{}); /* the handlers store was empty */
        EXPECT_EQ(seen.troubles, Lines{});
        findings += seen.summary.findings();
        ended_well++;
    }
    EXPECT_GE(ended_well, count / 3);
    EXPECT_GE(findings, static_cast<unsigned long>(ended_well)) << "hardly any limit was met";
}

} // namespace

} // namespace kolmo
