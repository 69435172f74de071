/*
 * What a domain's rows in the panel make of its mailboxes and aliases.
 */
#include "tests/run/run_fixture.h"

namespace kolmo::testing
{

namespace
{

class DomainsRun : public RunTest
{
protected:
    static Said missing_reply(const std::string &address, int mailbox_id)
    {
        return logged(
            "Unable to restore autoresponder for '" + address +
            "': check if you have record in table 'mail_resp' with mn_id=" + std::to_string(mailbox_id) +
            " and resp_name='default' and corresponding records in tables 'mail' and 'resp_forward'");
    }

    static Said sync_failed(const std::string &domain)
    {
        return logged("Unable to sync configuration of autoresponder for domain " + domain);
    }

    /* A single mailbox with so many attachments, file-1 and so on. */
    std::vector<std::string> add_attachments(int count)
    {
        const int responder = panel->add_mailbox_with_responder(panel->add_domain("one.example"), "info");
        std::vector<std::string> rows = {reply_row("info@one.example")};

        panel->execute("INSERT INTO resp_attach SELECT " + std::to_string(responder) +
                       ", CONCAT('file-', seq) FROM seq_1_to_" + std::to_string(count));
        for (int i = 1; i <= count; i++)
            rows.push_back(attachment_row("info@one.example", "file-" + std::to_string(i)));
        return rows;
    }
};

} // namespace

/* --- mailboxes ---------------------------------------------------------------------------------------- */

TEST_F(DomainsRun, DomainWithoutAMailboxThatAnswersIsPassedOver)
{
    const int domain = panel->add_domain("one.example");

    (void)panel->add_responder(panel->add_mailbox(domain, "off", false));
    (void)panel->add_domain("empty.example");

    expect_run(0);
    expect_responders({});
    expect_handlers({});
}

TEST_F(DomainsRun, MailboxSwitchedOffIsLeftOutAmongOthers)
{
    const int domain = add_simple_domain("one.example");

    (void)panel->add_responder(panel->add_mailbox(domain, "off", false));

    expect_run(0);
    expect_responders({reply_row("info@one.example")});
    expect_handlers({handler_row("info@one.example")});
}

/* Each is named with the id of its own, and what comes behind it is written all the same. */
TEST_F(DomainsRun, MailboxesWithoutADefaultReplyAreReportedAndTheOthersWritten)
{
    const int domain = panel->add_domain("one.example");

    (void)panel->add_mailbox_with_responder(domain, "first");
    const int none = panel->add_mailbox(domain, "none");
    (void)panel->add_mailbox_with_responder(domain, "second");
    const int other = panel->add_mailbox(domain, "other");
    (void)panel->add_responder(other, {.resp_name = "vacation"});
    (void)panel->add_mailbox_with_responder(domain, "third");

    expect_run(1, {missing_reply("none@one.example", none), missing_reply("other@one.example", other),
                   sync_failed("one.example")});
    expect_responders(
        {reply_row("first@one.example"), reply_row("second@one.example"), reply_row("third@one.example")});
}

TEST_F(DomainsRun, OnlyTheReplyNamedDefaultIsUsed)
{
    const int mailbox = panel->add_mailbox(panel->add_domain("one.example"), "info");

    (void)panel->add_responder(mailbox, {.resp_name = "a", .subject = "not this"});
    (void)panel->add_responder(mailbox, {.subject = "this"});
    (void)panel->add_responder(mailbox, {.resp_name = "z", .subject = "nor this"});

    expect_run(0);
    expect_responders({reply_row("info@one.example", {.subject = "this"})});
}

TEST_F(DomainsRun, MailboxesOfTheSameNameInTwoDomainsKeepTheirOwnReplies)
{
    (void)panel->add_mailbox_with_responder(panel->add_domain("one.example"), "info", {.subject = "1"});
    (void)panel->add_mailbox_with_responder(panel->add_domain("two.example"), "info", {.subject = "2"});

    expect_run(0);
    expect_responders(
        {reply_row("info@one.example", {.subject = "1"}), reply_row("info@two.example", {.subject = "2"})});
}

TEST_F(DomainsRun, NullColumnsAreWrittenAsEmptyTexts)
{
    const PanelResponder empty = {
        .keystr = {}, .subject = {}, .reply_to = {}, .content_type = {}, .charset = {}, .text = {}};

    (void)panel->add_mailbox_with_responder(panel->add_domain("one.example"), "info", empty);

    expect_run(0);
    expect_responders({reply_row("info@one.example", empty)});
}

TEST_F(DomainsRun, LastOfTwoForwardAddressesIsKeptInASingleRow)
{
    const int responder = panel->add_mailbox_with_responder(panel->add_domain("one.example"), "info");

    panel->add_forward(responder, "zoe@elsewhere.example");
    panel->add_forward(responder, "adam@elsewhere.example");
    const std::string last = panel->value("SELECT address FROM resp_forward LIMIT 1, 1");

    expect_run(0);
    expect_responders({reply_row("info@one.example", {}, "", last)});
}

TEST_F(DomainsRun, AttachmentsBeyondTheFirstAllocationAllArrive)
{
    const auto rows = add_attachments(129);

    expect_run(0);
    expect_responders(rows);
}

TEST_F(DomainsRun, LongTextOfTheReplyArrivesWhole)
{
    const PanelResponder large = {.text = std::string(300000, 'x') + "\r\nend"};

    (void)panel->add_mailbox_with_responder(panel->add_domain("one.example"), "info", large);

    expect_run(0);
    expect_responders({reply_row("info@one.example", large)});
}

/* The query is cut, and the server's complaint about it is the message. */
TEST_F(DomainsRun, MoreMailboxIdsThanTheQueryHasRoomForAreTheServersComplaint)
{
    panel->execute(
        "INSERT INTO domains VALUES (1, 'one.example'); INSERT INTO DomainServices VALUES (1, 'mail'); "
        "INSERT INTO mail SELECT seq, 1, CONCAT('m', seq), 'true' FROM seq_1000001_to_1000600");

    expect_run(
        1, {logged("Unable to query autoresponders: You have an error in your SQL syntax; check the manual "
                   "that corresponds to your MariaDB server version for the right syntax to use near '' at "
                   "line 1"),
            sync_failed("one.example")});
    expect_responders({});
    EXPECT_EQ(handler_rows().size(), 600U);
}

TEST_F(DomainsRun, LongestListOfIdsThatFitsIsRebuilt)
{
    panel->execute(
        "INSERT INTO domains VALUES (1, 'one.example'); INSERT INTO DomainServices VALUES (1, 'mail'); "
        "INSERT INTO mail SELECT seq, 1, CONCAT('m', seq), 'true' FROM seq_1000001_to_1000430; "
        "INSERT INTO mail_resp (mn_id, resp_name) SELECT id, 'default' FROM mail");

    expect_run(0);
    EXPECT_EQ(responder_rows().size(), 430U);
    EXPECT_EQ(handler_rows().size(), 430U);
}

/* --- aliases ------------------------------------------------------------------------------------------ */

TEST_F(DomainsRun, AliasOfADomainThatOthersContinueTakesTheirsToo)
{
    panel->execute("ALTER TABLE domains DROP KEY name"); /* or the server would return them by name */
    (void)panel->add_mailbox_with_responder(panel->add_domain("one.example.org"), "far");
    const int domain = panel->add_domain("one.example");
    (void)panel->add_mailbox_with_responder(domain, "near");
    panel->add_alias(domain, "one.alias");

    expect_run(0);
    expect_responders({reply_row("far@one.example.org"), reply_row("near@one.example"),
                       reply_row("far@one.alias.org", {}, "far@one.example.org"),
                       reply_row("near@one.alias", {}, "near@one.example")});
    expect_handlers({handler_row("far@one.example.org"), handler_row("near@one.example"),
                     handler_row("far@one.alias"), handler_row("near@one.alias")});
}

TEST_F(DomainsRun, HandlersOfTheBareDomainGoToTheBareAlias)
{
    panel->add_alias(panel->add_domain("one.example"), "one.alias");
    (void)add_foreign_handler("one.example", 10, "near");
    (void)add_foreign_handler("one.example.org", 10, "far");

    expect_run(0);
    EXPECT_EQ(query_store(handlers_store, "SELECT name, address FROM handlers ORDER BY address"),
              (std::vector<std::string>{"near,one.alias", "near,one.example", "far,one.example.org"}));
}

/* The rows were written in lower case, and the copy looks for the name as the panel has it. */
TEST_F(DomainsRun, DomainInMixedCaseHasNoRepliesUnderItsAlias)
{
    const int domain = panel->add_domain("One.Example");

    (void)panel->add_mailbox_with_responder(domain, "Anna.Berg");
    panel->add_alias(domain, "one.alias");

    expect_run(0);
    expect_responders({reply_row("anna.berg@one.example")});
    expect_handlers({handler_row("anna.berg@one.example"), handler_row("anna.berg@one.alias")});
}

TEST_F(DomainsRun, AliasInMixedCaseKeepsItsCaseInTheRepliesOnly)
{
    panel->add_alias(add_simple_domain("one.example"), "One.Alias");

    expect_run(0);
    expect_responders({reply_row("info@one.example"), reply_row("info@One.Alias", {}, "info@one.example")});
    expect_handlers({handler_row("info@one.example"), handler_row("info@one.alias")});
}

/* Only a domain of its own is given its ASCII form. */
TEST_F(DomainsRun, InternationalisedAliasIsCopiedToAsItIs)
{
    panel->add_alias(add_simple_domain("one.example"), "bücher.alias");

    expect_run(0);
    expect_responders(
        {reply_row("info@one.example"), reply_row("info@bücher.alias", {}, "info@one.example")});
    expect_handlers({handler_row("info@one.example"), handler_row("info@bücher.alias")});
}

TEST_F(DomainsRun, ProtectionOfAHandlerIsNotCopiedToTheAlias)
{
    panel->add_alias(panel->add_domain("one.example"), "one.alias");
    (void)add_foreign_handler("info@one.example");
    change_store(handlers_store, "UPDATE handlers SET protected = 1");

    expect_run(0);
    EXPECT_EQ(query_store(handlers_store, "SELECT address, protected FROM handlers ORDER BY address"),
              (std::vector<std::string>{"info@one.alias,0", "info@one.example,1"}));
}

/* --- names -------------------------------------------------------------------------------------------- */

TEST_F(DomainsRun, SpecialCharactersInMailboxNamesArriveUnchanged)
{
    const std::vector<std::string> names = {"o'brien",     "say\"hi\"",  "100%",        "%s%n",
                                            "back\\slash", "semi;colon", "under_score", "jürgen"};
    const int domain = panel->add_domain("one.example");
    std::vector<std::string> replies;
    std::vector<std::string> handlers;

    panel->add_alias(domain, "one.alias");
    for (const std::string &name : names) {
        (void)panel->add_mailbox_with_responder(domain, name, {.subject = name, .text = name});
        for (const std::string at : {"@one.example", "@one.alias"}) {
            replies.push_back(reply_row(name + at, {.subject = name, .text = name}, name + "@one.example"));
            handlers.push_back(handler_row(name + at));
        }
    }

    expect_run(0);
    expect_responders(replies);
    expect_handlers(handlers);
}

TEST_F(DomainsRun, SpecialCharactersInDomainAndAliasNamesArriveUnchanged)
{
    const std::vector<std::string> aliases = {"it's.alias", "\"q\".alias", "100%s.alias", "%n.alias"};
    const int domain = add_simple_domain("o'brien%s.example");
    std::vector<std::string> replies = {reply_row("info@o'brien%s.example")};
    std::vector<std::string> handlers = {handler_row("info@o'brien%s.example")};

    for (const std::string &alias : aliases) {
        panel->add_alias(domain, alias);
        replies.push_back(reply_row("info@" + alias, {}, "info@o'brien%s.example"));
        handlers.push_back(handler_row("info@" + alias));
    }

    expect_run(0);
    expect_responders(replies);
    expect_handlers(handlers);
}

/* Names and ids are paired by their places: what follows such a name gets the next one's id. */
TEST_F(DomainsRun, CommaInAMailboxNameShiftsTheMailboxesThatFollow)
{
    const int domain = panel->add_domain("one.example");

    (void)panel->add_mailbox_with_responder(domain, "a,b", {.subject = "first"});
    (void)panel->add_mailbox_with_responder(domain, "zoe", {.subject = "second"});

    expect_run(1, {missing_reply("zoe@one.example", 0), sync_failed("one.example")});
    expect_responders({reply_row("a@one.example", {.subject = "first"}, "a,b@one.example"),
                       reply_row("b@one.example", {.subject = "second"}, "zoe@one.example")});
}

TEST_F(DomainsRun, SpecialCharactersInMailboxNamesArriveInMessages)
{
    const int domain = panel->add_domain("one.example");

    (void)panel->add_mailbox(domain, "%s%n'");
    expect_run(1, {missing_reply("%s%n'@one.example", 1), sync_failed("one.example")});
}

/* Handlers are registered by a list in which a blank separates, too. */
TEST_F(DomainsRun, BlankInAMailboxNameMakesTwoHandlersAndOneReply)
{
    (void)panel->add_mailbox_with_responder(panel->add_domain("one.example"), "two words");

    expect_run(0);
    expect_responders({reply_row("two words@one.example")});
    expect_handlers({handler_row("two@one.example"), handler_row("words@one.example")});
}

TEST_F(DomainsRun, CommaInAMailboxNameMakesAMailboxThatIsNotFound)
{
    (void)panel->add_mailbox_with_responder(panel->add_domain("one.example"), "a,b");

    expect_run(1, {missing_reply("b@one.example", 0), sync_failed("one.example")});
    expect_responders({reply_row("a@one.example", {}, "a,b@one.example")});
    expect_handlers({handler_row("a@one.example"), handler_row("b@one.example")});
}

TEST_F(DomainsRun, InternationalisedDomainHasAsciiHandlersAndUtf8Replies)
{
    (void)panel->add_mailbox_with_responder(panel->add_domain("BÜCHER.example"), "Info");

    expect_run(0);
    expect_responders({reply_row("info@bÜcher.example")}); /* lower-cased byte by byte */
    expect_handlers({handler_row("info@xn--bcher-kva.example")});
}

/* Its handlers stand under another name than the one they are looked for by. */
TEST_F(DomainsRun, AliasOfAnInternationalisedDomainGetsRepliesButNoHandlers)
{
    panel->add_alias(add_simple_domain("bücher.example"), "books.example");

    expect_run(0);
    expect_responders(
        {reply_row("info@bücher.example"), reply_row("info@books.example", {}, "info@bücher.example")});
    expect_handlers({handler_row("info@xn--bcher-kva.example")});
}

TEST_F(DomainsRun, DomainThatHasNoAsciiFormRegistersNothing)
{
    struct Refused {
        std::string domain;
        std::string text;
    };
    const Refused refused[] = {{std::string(64, 'x') + ".example", "Invalid length"},
                               {"left\u200eright.example", "Stringprep error"}};

    for (const auto &[domain, text] : refused) {
        panel->reset();
        panel->add_alias(add_simple_domain(domain), "one.alias");
        expect_run(1, {logged("idn_toascii() failed: " + text),
                       logged("Unable to make action for some autoresponder handlers"),
                       logged("Unable to reconfigure autoresponder for domain " + domain)});
        expect_responders({});
        expect_handlers({});
    }
}

TEST_F(DomainsRun, DomainThatHasNoAsciiFormIsReportedForEachMailbox)
{
    const int domain = panel->add_domain(std::string(64, 'x') + ".example");

    (void)panel->add_mailbox_with_responder(domain, "first");
    (void)panel->add_mailbox_with_responder(domain, "second");
    expect_run(
        1, {logged("idn_toascii() failed: Invalid length"), logged("idn_toascii() failed: Invalid length"),
            logged("Unable to make action for some autoresponder handlers"),
            logged("Unable to reconfigure autoresponder for domain " + std::string(64, 'x') + ".example")});
}

TEST_F(DomainsRun, AddressOf254CharactersIsRegistered)
{
    const std::string name(254 - sizeof "@one.example" + 1, 'x');

    (void)panel->add_mailbox_with_responder(panel->add_domain("one.example"), name);

    expect_run(0);
    expect_responders({reply_row(name + "@one.example")});
    expect_handlers({handler_row(name + "@one.example")});
}

TEST_F(DomainsRun, AddressOf255CharactersKeepsTheWholeDomainFromBeingRegistered)
{
    const int domain = add_simple_domain("one.example");

    (void)panel->add_mailbox_with_responder(domain, std::string(255 - sizeof "@one.example" + 1, 'x'));

    expect_run(1, {logged("domain name too long\n"),
                   logged("Unable to make action for some autoresponder handlers"),
                   logged("Unable to reconfigure autoresponder for domain one.example")});
    expect_responders({});
    expect_handlers({});
}

TEST_F(DomainsRun, CopiedHandlerOf501CharactersIsWritten)
{
    const std::string alias(255, 'a');

    (void)add_foreign_handler(std::string(245, 'x') + "@one.example");
    panel->add_alias(panel->add_domain("one.example"), alias);

    expect_run(0);
    EXPECT_EQ(query_store(handlers_store, "SELECT max(length(address)) FROM handlers"),
              std::vector<std::string>{"501"});
}

TEST_F(DomainsRun, CopiedHandlerOf502CharactersEndsTheRun)
{
    const std::string alias(255, 'a');
    const std::string local(246, 'x');

    (void)add_foreign_handler(local + "@one.example");
    panel->add_alias(add_simple_domain("one.example"), alias);

    expect_run(
        1, {reported_with_errno("Handler address is longer than 501 characters: " + local + '@' + alias)});
    EXPECT_EQ(query_store(handlers_store, "SELECT count(*) FROM handlers WHERE address LIKE '%@aaa%'"),
              std::vector<std::string>{"0"});
    expect_responders({reply_row("info@one.example")});
}

} // namespace kolmo::testing
