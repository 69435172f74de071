/*
 * A run from its start to its exit status.
 */
#include "tests/run/run_fixture.h"

#include <sstream>

#include "tests/support/environment.h"
#include "tests/support/wait_until.h"

namespace kolmo::testing
{

namespace
{

class FlowRun : public RunTest
{
protected:
    /* Of three domains the second has a mailbox without a responder, and the headers are set. */
    void add_domains_with_a_broken_second()
    {
        (void)add_simple_domain("first.example");
        (void)panel->add_mailbox(panel->add_domain("second.example"), "info");
        (void)add_simple_domain("third.example");
        panel->set_reply_headers("{\"X-Never\": \"written\"}");
    }

    /* A client does not wait until the server has logged that it takes its leave. */
    void wait_for_others_to_leave()
    {
        wait_until(
            [this] {
                return panel->value("SELECT count(*) FROM information_schema.processlist "
                                    "WHERE user = 'admin' AND id <> CONNECTION_ID()") == "0";
            },
            "their end");
    }

    /* What a run that ends so says to the server, by the server's own log. */
    std::vector<std::string> asked_in(int status, const std::vector<Said> &messages = {})
    {
        std::vector<std::string> asked;

        wait_for_others_to_leave();
        panel->execute("TRUNCATE mysql.general_log; SET GLOBAL log_output = 'TABLE', general_log = ON");
        expect_run(status, messages);
        wait_for_others_to_leave();
        panel->execute("SET GLOBAL general_log = OFF");
        std::istringstream log(
            panel->value("SELECT GROUP_CONCAT(command_type, ' ', REPLACE(argument, CHAR(0), "
                         "'\\\\0') SEPARATOR '\\n') FROM mysql.general_log "
                         "WHERE thread_id <> CONNECTION_ID()"));
        for (std::string line; std::getline(log, line);)
            asked.push_back(line);
        return asked;
    }

    std::vector<Said> complaints_of_second() const
    {
        return {
            logged("Unable to restore autoresponder for 'info@second.example': check if you have record in "
                   "table 'mail_resp' with mn_id=2 and resp_name='default' and corresponding records in "
                   "tables 'mail' and 'resp_forward'"),
            logged("Unable to sync configuration of autoresponder for domain second.example")};
    }
};

const PanelResponder full_responder = {.keystr = "order",
                                       .key_where = "subj",
                                       .subject = "Re: <request_subject>",
                                       .reply_to = "office@one.example",
                                       .content_type = "text/html",
                                       .charset = "ISO-8859-1",
                                       .text = "<p>Line one\nline two\\n</p>",
                                       .resp_on = "false",
                                       .ans_freq = 7,
                                       .mem_limit = -3};

} // namespace

TEST_F(FlowRun, TwoDomainsWithTwoAliasesEachAreRebuiltWhole)
{
    const int one = panel->add_domain("one.example");
    const int two = panel->add_domain("two.example");
    const int desk = panel->add_mailbox_with_responder(one, "desk", full_responder);

    (void)panel->add_mailbox_with_responder(one, "sales");
    (void)panel->add_mailbox_with_responder(two, "info");
    panel->add_forward(desk, "boss@elsewhere.example");
    panel->add_attachment(desk, "map.png");
    panel->add_attachment(desk, "price list.pdf");
    panel->add_alias(one, "one.alias");
    panel->add_alias(one, "uno.alias");
    panel->add_alias(two, "dos.alias");
    panel->add_alias(two, "two.alias");
    panel->set_reply_headers("{\"Auto-Submitted\": \"auto-replied\"}");

    /* Somebody else's, with a mailbox of the domain's own and with none; and stale ones of ours. */
    std::vector<std::string> handlers = {add_foreign_handler("desk@elsewhere.example")};

    (void)add_foreign_handler("list@one.example");
    (void)add_foreign_handler("desk@one.example", 5, "autoresponder");
    (void)add_foreign_handler("sales@uno.alias", 5, "autoresponder");

    expect_run(0);

    std::vector<std::string> replies = {header_row("Auto-Submitted", "auto-replied")};

    for (const std::string domain : {"one.example", "one.alias", "uno.alias"}) {
        replies.push_back(
            reply_row("desk@" + domain, full_responder, "desk@one.example", "boss@elsewhere.example"));
        replies.push_back(reply_row("sales@" + domain, {}, "sales@one.example"));
        replies.push_back(attachment_row("desk@" + domain, "map.png"));
        replies.push_back(attachment_row("desk@" + domain, "price list.pdf"));
        handlers.push_back(handler_row("desk@" + domain));
        handlers.push_back(handler_row("sales@" + domain));
        handlers.push_back(foreign_handler_row("list@" + domain));
    }
    for (const std::string domain : {"two.example", "dos.alias", "two.alias"}) {
        replies.push_back(reply_row("info@" + domain, {}, "info@two.example"));
        handlers.push_back(handler_row("info@" + domain));
    }
    expect_responders(replies);
    expect_handlers(handlers);
}

/* The terminator of the first question is sent, too. */
TEST_F(FlowRun, ServerIsAskedInThisOrderAndTakenLeaveOf)
{
    const int domain = add_simple_domain("one.example");

    panel->add_alias(domain, "one.alias");
    EXPECT_EQ(
        asked_in(0),
        (std::vector<std::string>{
            "Connect admin@localhost on qsx using Socket", "Query SET NAMES utf8",
            "Query SELECT d.id, d.name FROM domains d  LEFT JOIN DomainServices ds ON d.id=ds.dom_id  "
            "WHERE ds.type='mail'\\0",
            "Query SELECT group_concat(mail_name SEPARATOR ','), group_concat(id SEPARATOR ',') FROM mail  "
            "WHERE dom_id=1 AND autoresponder='true'",
            "Query SELECT mail_resp.id, mail_resp.mn_id, mail_resp.resp_name, mail_resp.keystr,"
            "mail_resp.key_where, mail_resp.subject, mail_resp.reply_to, mail_resp.content_type, "
            "mail_resp.charset, mail_resp.text, mail_resp.resp_on, mail_resp.ans_freq, mail_resp.mem_limit, "
            "resp_forward.address, mail.mail_name FROM mail_resp LEFT JOIN resp_forward ON "
            "resp_forward.rn_id=mail_resp.id LEFT JOIN mail ON mail_resp.mn_id=mail.id WHERE "
            "mail_resp.resp_name='default' AND mail_resp.mn_id IN (1)",
            "Query SELECT filename FROM resp_attach WHERE rn_id=1",
            "Query SELECT name FROM domain_aliases  WHERE dom_id=1",
            "Query select value from ServiceNodeConfiguration where name='auto_reply_headers' and "
            "serviceNodeId=1 and section='mailServer'",
            "Quit "}));

    panel->execute("DROP TABLE domain_aliases");
    const std::vector<std::string> asked =
        asked_in(255, {logged("Unable to query domain aliases: Table 'qsx.domain_aliases' doesn't exist")});

    EXPECT_EQ(asked.back(), "Quit ");
    EXPECT_EQ(asked.size(), 8U);
}

TEST_F(FlowRun, HandlersOfOthersStayAndStaleOnesOfTheSameKeyAreReplaced)
{
    const std::string other = add_foreign_handler("someone@elsewhere.example");
    const std::string own_mailbox = add_foreign_handler("info@one.example");

    (void)add_foreign_handler("info@one.example", 5, "autoresponder");
    (void)add_simple_domain("one.example");

    expect_run(0);
    expect_handlers({other, own_mailbox, handler_row("info@one.example")});
}

TEST_F(FlowRun, WhatTheResponderStoreHeldBeforeIsGone)
{
    make_responder_store();
    change_store(responder_store, "INSERT INTO extra_headers VALUES ('X-Old', '1');"
                                  "INSERT INTO attachments VALUES ('old@one.example', 'old.txt')");
    (void)add_simple_domain("one.example");

    expect_run(0);
    expect_responders({reply_row("info@one.example")});
}

TEST_F(FlowRun, WithoutADomainWithMailServiceOnlyTheHeadersAreWritten)
{
    const int domain = panel->add_domain("web.example", false);

    (void)panel->add_mailbox_with_responder(domain, "info");
    panel->set_reply_headers("{\"X-One\": \"1\"}");

    expect_run(0);
    expect_responders({header_row("X-One", "1")});
    expect_handlers({});
}

TEST_F(FlowRun, EmptyPanelGivesEmptyStores)
{
    expect_run(0);
    expect_responders({});
    expect_handlers({});
}

TEST_F(FlowRun, RunAgainGivesTheSameRows)
{
    panel->add_alias(add_simple_domain("one.example"), "one.alias");
    expect_run(0);

    const auto responders = responder_rows();
    const auto handlers = handler_rows();

    expect_run(0);
    EXPECT_EQ(responders.size(), 2U);
    expect_responders(responders);
    expect_handlers(handlers);
}

TEST_F(FlowRun, SecondDomainThatFailsStopsTheRunAfterTheFirst)
{
    add_domains_with_a_broken_second();

    expect_run(1, complaints_of_second());
    expect_responders({reply_row("info@first.example")});
    expect_handlers({handler_row("info@first.example"), handler_row("info@second.example")});
}

TEST_F(FlowRun, AliasesOfADomainThatFailsAreNotReached)
{
    add_domains_with_a_broken_second();
    panel->add_alias(2, "second.alias");

    expect_run(1, complaints_of_second());
    expect_handlers({handler_row("info@first.example"), handler_row("info@second.example")});
}

TEST_F(FlowRun, OptionsOnTheCommandLineChangeNothing)
{
    (void)add_simple_domain("one.example");

    expect_result(run({.argv = {program_name, "--help", "extra"}}), 0);
    expect_responders({reply_row("info@one.example")});
}

TEST_F(FlowRun, LogLinesBeginWithTheNameThatTheProgramWasStartedBy)
{
    panel->execute("DROP TABLE domains");

    const std::string name = "/some/where/" + std::string(60, 'x');
    const std::string cut = name.substr(0, 63);

    expect_result(run({.argv = {name}}), 255,
                  {logged("Unable to query domains: Table 'qsx.domains' doesn't exist")}, cut);
}

TEST_F(FlowRun, LogLevelFromTheEnvironmentIsNotLookedAt)
{
    const EnvironmentVariable level("KOLMO_LOG_LEVEL", "7");

    write_utility("kill -TERM $$"); /* said at warning */
    expect_run(255, {reported(utility_path + " execution failed:\n"),
                     logged("Unable to re-initialize autoresponder's database")});
}

TEST_F(FlowRun, TraceIdFromTheEnvironmentIsNotLookedAt)
{
    const EnvironmentVariable trace("KOLMO_LOG_TRACE_ID", "T1");

    panel->execute("DROP TABLE domains");
    expect_run(255, {logged("Unable to query domains: Table 'qsx.domains' doesn't exist")});
}

TEST_F(FlowRun, WithoutSyslogMessagesStillReachStandardError)
{
    syslog.reset();
    panel->execute("DROP TABLE domains");

    const ProgramResult result = run();

    EXPECT_EQ(result.status, 255);
    EXPECT_EQ(result.err, program_name + '[' + std::to_string(result.pid) +
                              "]: Unable to query domains: Table 'qsx.domains' doesn't exist\n");
}

/*
 * A mailbox without a responder is complained of while the database's connection is in use, and the next
 * mailbox needs that connection: a message that went into it would show.
 */
TEST_F(FlowRun, WithoutStandardStreamsNoMessageGoesIntoTheDatabaseOrTheStores)
{
    const int domain = panel->add_domain("one.example");

    (void)panel->add_mailbox(domain, "broken");
    const int responder = panel->add_mailbox_with_responder(domain, "info");
    panel->add_attachment(responder, "map.png");

    for (const std::vector<int> &closed : {std::vector{0, 1, 2}, {0}, {1}, {2}, {0, 2}}) {
        const ProgramResult result = run({.closed = closed});

        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(syslog->take().size(), 2U);
        expect_responders({reply_row("info@one.example"), attachment_row("info@one.example", "map.png")});
    }
}

TEST_F(FlowRun, WithoutStandardStreamsTheUtilityHasThemAllTheSame)
{
    write_utility("ls /proc/self/fd >/run/descriptors; " + stand_in);

    for (const std::vector<int> &closed : {std::vector{0, 1, 2}, {0}, {1}, {2}}) {
        expect_result(run({.closed = closed}), 0);
        EXPECT_EQ(read_file("/run/descriptors"), "0\n1\n2\n3\n"); /* 3: the listing's own */
    }
}

} // namespace kolmo::testing
