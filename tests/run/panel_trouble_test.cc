/*
 * A panel whose tables are damaged: what is said, and what stays of the work done before.
 */
#include "tests/run/run_fixture.h"

#include <ostream>

namespace kolmo::testing
{

namespace
{

struct MissingTable {
    const char *table;
    int status;
    std::vector<Said> messages;
    bool handlers; /* whether they were registered before */
    bool replies;  /* whether they were written before */
};

std::ostream &operator<<(std::ostream &stream, const MissingTable &missing)
{
    return stream << missing.table;
}

std::string gone(const char *table)
{
    return "Table 'qsx." + std::string(table) + "' doesn't exist";
}

const Said domain_failed = logged("Unable to sync configuration of autoresponder for domain one.example");

const MissingTable missing_tables[] = {
    {"domains", 255, {logged("Unable to query domains: " + gone("domains"))}, false, false},
    {"DomainServices", 255, {logged("Unable to query domains: " + gone("DomainServices"))}, false, false},
    {"mail", 255, {logged("Unable to query mail names: " + gone("mail"))}, false, false},
    {"mail_resp",
     1,
     {logged("Unable to query autoresponders: " + gone("mail_resp")), domain_failed},
     true,
     false},
    {"resp_forward",
     1,
     {logged("Unable to query autoresponders: " + gone("resp_forward")), domain_failed},
     true,
     false},
    {"resp_attach",
     1,
     {logged("Unable to query autoresponder info@one.example attachments: " + gone("resp_attach")),
      domain_failed},
     true,
     false},
    {"domain_aliases",
     255,
     {logged("Unable to query domain aliases: " + gone("domain_aliases"))},
     true,
     true},
    {"ServiceNodeConfiguration",
     1,
     {reported_with_errno(
         "Unable to query domain parameter auto_reply_headers: " + gone("ServiceNodeConfiguration") + "\n")},
     true,
     true},
    {"misc", 0, {}, true, true},
};

/* A query whose rows break off on their way: the server has accepted it when it meets the error. */
struct LostRows {
    const char *table;
    int status;
    std::vector<Said> messages;
};

std::ostream &operator<<(std::ostream &stream, const LostRows &lost)
{
    return stream << lost.table;
}

const LostRows lost_rows[] = {
    {"domains", 255, {logged("Unable to query domains: lost")}},
    {"mail", 255, {logged("Unable to query mail names: lost")}},
    {"mail_resp", 1, {logged("Unable to query autoresponders: lost"), domain_failed}},
    {"resp_attach",
     1,
     {logged("Unable to query autoresponder info@one.example attachments: lost"), domain_failed}},
    {"domain_aliases", 255, {logged("Unable to query domain aliases: lost")}},
    {"ServiceNodeConfiguration",
     1,
     {reported_with_errno("Unable to query domain parameter auto_reply_headers: lost\n")}},
};

class LostRowsRun : public RunTest, public ::testing::WithParamInterface<LostRows>
{
};

class MissingTableRun : public RunTest, public ::testing::WithParamInterface<MissingTable>
{
};

class PanelTroubleRun : public RunTest
{
};

} // namespace

TEST_P(MissingTableRun, EndsTheRunWhereItIsNeededAndKeepsWhatWasCommitted)
{
    const MissingTable &missing = GetParam();

    (void)add_simple_domain("one.example");
    panel->execute(std::string("DROP TABLE ") + missing.table);

    expect_run(missing.status, missing.messages);
    expect_handlers(missing.handlers ? std::vector{handler_row("info@one.example")}
                                     : std::vector<std::string>{});
    expect_responders(missing.replies ? std::vector{reply_row("info@one.example")}
                                      : std::vector<std::string>{});
}

INSTANTIATE_TEST_SUITE_P(PanelTrouble, MissingTableRun, ::testing::ValuesIn(missing_tables),
                         [](const auto &missing) { return std::string(missing.param.table); });

TEST_P(LostRowsRun, AreAFailedQuery)
{
    const LostRows &lost = GetParam();
    const std::string table = lost.table;

    (void)add_simple_domain("one.example");
    panel->set_reply_headers("{\"X-A\": \"1\"}");
    panel->execute("INSERT INTO domain_aliases VALUES (1, 'one.alias'); "
                   "INSERT INTO resp_attach (rn_id, filename) VALUES (1, 'a.txt'); "
                   "CREATE FUNCTION lose() RETURNS INT NO SQL BEGIN SIGNAL SQLSTATE '45000' SET MESSAGE_TEXT "
                   "= 'lost'; RETURN 1; END; RENAME TABLE " +
                   table + " TO whole; CREATE VIEW " + table + " AS SELECT * FROM whole WHERE lose() = 1");

    expect_run(lost.status, lost.messages);
}

INSTANTIATE_TEST_SUITE_P(PanelTrouble, LostRowsRun, ::testing::ValuesIn(lost_rows),
                         [](const auto &lost) { return std::string(lost.param.table); });

TEST_F(PanelTroubleRun, AccountWithoutRightsOnATableIsToldSo)
{
    (void)add_simple_domain("one.example");
    panel->execute("CREATE OR REPLACE USER 'narrow'@'localhost' IDENTIFIED BY 'pw'; "
                   "GRANT SELECT ON qsx.misc TO 'narrow'@'localhost'");
    write_file(dsn_path, "[kolmo]\nusername = narrow\npassword = pw\n");

    expect_run(255, {logged("Unable to query domains: SELECT command denied to user 'narrow'@'localhost' for "
                            "table `qsx`.`domains`")});
    panel->execute("DROP USER 'narrow'@'localhost'");
}

/* The panel's own schema forbids it; a panel that was restored without its constraints may not. */
TEST_F(PanelTroubleRun, NullInANumberColumnIsReadAsZero)
{
    const int domain = panel->add_domain("one.example");
    const int mailbox = panel->add_mailbox(domain, "info");

    panel->execute("ALTER TABLE mail_resp MODIFY ans_freq INT, MODIFY mem_limit INT");
    (void)panel->add_responder(mailbox);
    panel->execute("UPDATE mail_resp SET ans_freq = NULL, mem_limit = NULL");

    expect_run(0);
    expect_responders({reply_row("info@one.example", {.ans_freq = 0, .mem_limit = 0})});
}

/* The server ends the connection in the middle of the run. */
TEST_F(PanelTroubleRun, LostConnectionEndsTheRunAfterWhatWasCommitted)
{
    (void)add_simple_domain("one.example");
    (void)add_simple_domain("two.example");
    panel->execute("INSERT INTO domain_aliases VALUES (1, 'one.alias')");
    panel->execute("RENAME TABLE domain_aliases TO aliases; CREATE FUNCTION cut() RETURNS INT READS SQL DATA "
                   "BEGIN DECLARE me INT DEFAULT CONNECTION_ID(); KILL me; RETURN 1; END; "
                   "CREATE VIEW domain_aliases AS SELECT dom_id, name FROM aliases WHERE cut() = 1");

    expect_run(255, {logged("Unable to query domain aliases: Connection was killed")});
    expect_responders({reply_row("info@one.example")});
}

} // namespace kolmo::testing
