/* Each limit of a rebuild: found before it and after it, with what mends it; mended, it is gone. */
#include <string>

#include <gtest/gtest.h>

#include "tests/verify/verify_world.h"

namespace kolmo
{

namespace
{

using namespace testing;

struct LimitRow {
    const char *name;
    std::string panel; /* statements that make the panel which meets it */
    const char *code;
    const char *remedy;
    std::string mend; /* statements that follow the help */
};

std::string numbered_mailboxes(int count)
{
    return "INSERT INTO mail SELECT 1000000 + seq, 1, CONCAT('m', seq), 'true' FROM seq_1_to_" +
           std::to_string(count) +
           "; INSERT INTO mail_resp (mn_id, resp_name, subject) SELECT id, 'default', mail_name FROM mail;";
}

std::string renamed(int mailbox, const std::string &name)
{
    return "UPDATE mail SET mail_name = " + sql_literal(name) + " WHERE id = " + std::to_string(mailbox) +
           ';';
}

const std::string info = sql_domain(1, "a.test") + sql_answering(1, 1, "info");
const std::string info_with_alias = info + sql_alias(1, "b.test");
const std::string without_alias = "DELETE FROM domain_aliases WHERE name = 'b.test';";
const std::string long_label(64, 'x');

const LimitRow limit_rows[] = {
    {"TooManyMailboxes", sql_domain(1, "a.test") + numbered_mailboxes(454), "too-many-mailboxes", "panel",
     "UPDATE mail SET autoresponder = 'false' WHERE id = 1000454;"},
    {"ListCut",
     "SET GLOBAL group_concat_max_len = 64;" + sql_domain(1, "a.test") + numbered_mailboxes(40) +
         sql_domain(2, "later.test") + sql_answering(1, 2, "info"),
     "list-cut", "manual", "SET GLOBAL group_concat_max_len = 1048576;"},
    {"ListCutToAnotherMailboxesName",
     "SET GLOBAL group_concat_max_len = 7;" + sql_domain(1, "a.test") + sql_answering(1, 1, "ann") +
         sql_answering(2, 1, "annb"),
     "list-cut", "manual", "SET GLOBAL group_concat_max_len = 1048576;"},
    {"ListCutWithinACharacterToAnotherMailboxesName",
     "SET GLOBAL group_concat_max_len = 9;" + sql_domain(1, "a.test") + sql_answering(1, 1, "ann") +
         sql_answering(2, 1, "ann\xe4\xb8\xad"),
     "list-cut", "manual", "SET GLOBAL group_concat_max_len = 1048576;"},
    {"ListCutToTheNameOfAMailboxOfAnotherDomain",
     "SET GLOBAL group_concat_max_len = 7;" + sql_domain(1, "a.test") + sql_answering(1, 1, "ann") +
         sql_domain(2, "b.test") + sql_answering(2, 2, "000") + sql_answering(3, 2, "annb") +
         sql_alias(2, "a.test"),
     "list-cut", "manual", "SET GLOBAL group_concat_max_len = 1048576;"},
    {"CommaInName", info + sql_answering(2, 1, "a,b") + sql_answering(3, 1, "z"), "comma-in-name", "panel",
     renamed(2, "ab")},
    {"BlankInName", info_with_alias + sql_answering(2, 1, "b c"), "blank-in-name", "panel", renamed(2, "bc")},
    {"AtInName", info_with_alias + sql_answering(2, 1, "b@c"), "at-in-name", "panel", renamed(2, "bc")},
    {"AtInNameBeforeItsDomain", info_with_alias + sql_answering(2, 1, "x@a.test"), "at-in-name", "panel",
     renamed(2, "x")},
    {"EmptyName", info_with_alias + sql_answering(2, 1, ""), "empty-name", "panel", renamed(2, "bc")},
    {"EmptyNameWithAnAttachment",
     sql_domain(1, "a.test") + sql_answering(1, 1, "") + sql_answering(2, 1, "info") +
         "INSERT INTO resp_attach VALUES (1001, 'beach.pdf');",
     "empty-name", "panel", renamed(1, "bc")},
    {"TextBeyondUtf8mb3",
     sql_domain(1, "a.test") + sql_mailbox(1, 1, "info") + sql_reply(1, "Away \xf0\x9f\x8f\x96"),
     "text-beyond-utf8mb3", "panel", "UPDATE mail_resp SET subject = 'Away';"},
    {"FileNameBeyondUtf8mb3",
     info_with_alias + "INSERT INTO resp_attach VALUES (1001, '\xf0\x9f\x8f\x96.pdf');",
     "text-beyond-utf8mb3", "panel", "UPDATE resp_attach SET filename = 'beach.pdf';"},
    {"HeaderBeyondUtf8mb3", info + sql_headers("{\"X-A\": \"\xf0\x9f\x8f\x96\"}"), "text-beyond-utf8mb3",
     "panel", sql_headers("{\"X-A\": \"beach\"}")},
    {"MailboxNameBeyondUtf8mb3", info_with_alias + sql_answering(2, 1, "\xf0\x9f\x8f\x96"),
     "text-beyond-utf8mb3", "panel", renamed(2, "beach")},
    {"AliasOfIdnDomain",
     sql_domain(1, "b\xc3\xbc"
                   "cher.test") +
         sql_answering(1, 1, "info") + sql_alias(1, "b.test"),
     "alias-of-idn-domain", "panel", "UPDATE domains SET name = 'xn--bcher-kva.test';"},
    {"AliasNotAscii",
     info + sql_alias(1, "b\xc3\xbc"
                         "cher.test"),
     "alias-not-ascii", "panel", "UPDATE domain_aliases SET name = 'xn--bcher-kva.test';"},
    {"AliasWithCapitals", info + sql_alias(1, "B.test"), "alias-with-capitals", "panel",
     "UPDATE domain_aliases SET name = 'b.test';"},
    {"AliasIsItsDomainWithCapitals", info + sql_alias(1, "A.test"), "alias-with-capitals", "panel",
     "DELETE FROM domain_aliases;"},
    {"AliasOverlapsSubdomain", info_with_alias + sql_domain(2, "sub.a.test") + sql_answering(2, 2, "other"),
     "alias-overlaps-domain", "panel", without_alias},
    {"AliasOverlapsLongerDomain",
     info_with_alias + sql_domain(2, "A.test.example") + sql_answering(2, 2, "other"),
     "alias-overlaps-domain", "panel", without_alias},
    {"AliasOverlapsByWildcard",
     sql_domain(1, "a_b.test") + sql_answering(1, 1, "info") + sql_alias(1, "b.test") +
         sql_domain(2, "axb.test") + sql_answering(2, 2, "other"),
     "alias-overlaps-domain", "panel", without_alias},
    {"AliasOverlapsAliasOfAnotherDomain",
     info_with_alias + sql_domain(2, "c.test") + sql_answering(2, 2, "other") + sql_alias(2, "sub.a.test"),
     "alias-overlaps-domain", "panel", without_alias},
    {"AliasRepeatsRepliesOfItsDomainsOtherAlias", info_with_alias + sql_alias(1, "a.test.example"),
     "alias-overlaps-domain", "panel", without_alias},
    {"AliasOverlapsMailboxName", info_with_alias + sql_domain(2, "c.test") + sql_answering(2, 2, "x.a.test"),
     "alias-overlaps-domain", "panel", without_alias},
    {"AliasOverlapsAcrossTheAt",
     sql_domain(1, "o_a.test") + sql_answering(1, 1, "x") + sql_alias(1, "b.test") + sql_domain(2, "a.test") +
         sql_answering(2, 2, "info"),
     "alias-overlaps-domain", "panel", without_alias},
    {"AliasOverlapsDomainInAMailboxName",
     sql_domain(1, "a.test.example") + sql_answering(1, 1, "y@t") + sql_domain(2, "t") +
         sql_answering(2, 2, "info") + sql_alias(2, "b.test"),
     "alias-overlaps-domain", "panel", "DELETE FROM domain_aliases;"},
    {"AliasesOverlapDomainInAMailboxNameOneAfterTheOther",
     sql_domain(1, "a.test") + sql_answering(1, 1, "y@b.test") + sql_domain(2, "b.test") +
         sql_answering(2, 2, "info") + sql_alias(2, "c.test") + sql_domain(3, "c.test") +
         sql_answering(3, 3, "other") + sql_alias(3, "d.test"),
     "alias-overlaps-domain", "panel", "DELETE FROM domain_aliases;"},
    {"AliasOverlapsDomainAlikeButForCase",
     "ALTER TABLE domains MODIFY name VARCHAR(255) COLLATE utf8mb4_bin;" + sql_domain(1, "A.test") +
         sql_answering(1, 1, "info") + sql_alias(1, "b.test") + sql_domain(2, "a.test") +
         sql_answering(2, 2, "other") + sql_alias(2, "c.test"),
     "alias-overlaps-domain", "panel", "UPDATE domains SET name = 'd.test' WHERE id = 1;"},
    {"AliasRepeatsRepliesOverThoseOfADomain",
     info + sql_alias(1, "0") + sql_domain(2, "0b.test") + sql_answering(2, 2, "info") +
         sql_alias(2, "a.test.example") + sql_domain(3, "0.example") + sql_answering(3, 3, "info"),
     "alias-overlaps-domain", "panel", "DELETE FROM domain_aliases WHERE dom_id = 1;"},
    {"AliasRepeatsWhatAnotherHasRepeated",
     info_with_alias + sql_domain(2, "0.test") + sql_answering(2, 2, "info") +
         sql_alias(2, "a.test.example") + sql_domain(3, "b.test") + sql_answering(3, 3, "other") +
         sql_alias(3, "c.test"),
     "alias-overlaps-domain", "panel", "DELETE FROM domain_aliases;"},
    {"AddressTooLong",
     sql_domain(1, "a.test") + sql_answering(1, 1, std::string(245, 'x')) +
         "UPDATE domains SET name = 'abc.test0';",
     "address-too-long", "panel", "UPDATE domains SET name = 'ab.test0';"},
    {"AliasIsAnotherDomain",
     info + sql_alias(1, "c.test") + sql_domain(2, "c.test") + sql_answering(2, 2, "info"), "address-twice",
     "panel", "DELETE FROM domain_aliases;"},
    {"AliasOfTwoDomains",
     "ALTER TABLE domain_aliases DROP PRIMARY KEY;" + info_with_alias + sql_domain(2, "c.test") +
         sql_answering(2, 2, "info") + sql_alias(2, "b.test"),
     "address-twice", "panel", "DELETE FROM domain_aliases WHERE dom_id = 2;"},
    {"NamesAlikeButForCase",
     "ALTER TABLE mail MODIFY mail_name VARCHAR(245) COLLATE utf8mb4_bin;" + info_with_alias +
         sql_answering(2, 1, "Info"),
     "address-twice", "panel", renamed(2, "other")},
    {"NameNotConvertible", sql_domain(1, long_label + ".test") + sql_answering(1, 1, "info"),
     "name-not-convertible", "panel", "UPDATE domains SET name = 'a.test';"},
    {"DomainNameWithCapitals", sql_domain(1, "A.test") + sql_answering(1, 1, "info") + sql_alias(1, "b.test"),
     "domain-name-with-capitals", "panel", "UPDATE domains SET name = 'a.test';"},
    {"HeadersTooLong", info + sql_headers("{\"X-A\": \"" + std::string(4100, 'x') + "\"}"),
     "headers-too-long", "panel", sql_headers("{}")},
    {"HeadersTooDeep",
     "ALTER TABLE ServiceNodeConfiguration MODIFY value MEDIUMTEXT;" + info +
         sql_headers(std::string(1000000, '[')),
     "headers-too-long", "panel", sql_headers("{}")},
    {"HeadersNotJson", info + sql_headers("{"), "headers-not-json", "panel", sql_headers("{\"X-A\": 1}")},
    {"HeadersNotAnObject", info + sql_headers("[\"a\", \"b\"]"), "headers-not-an-object", "panel",
     sql_headers("{}")},
    {"NoDefaultReply",
     info_with_alias + sql_mailbox(2, 1, "none") + sql_domain(2, "later.test") + sql_answering(3, 2, "x"),
     "no-default-reply", "panel", sql_reply(2)},
    {"SeveralDefaultReplies",
     "ALTER TABLE mail_resp DROP KEY mn_id;" + info_with_alias +
         "INSERT INTO mail_resp (id, mn_id, resp_name, subject) VALUES (2001, 1, 'default', 'x');",
     "several-default-replies", "panel", "DELETE FROM mail_resp WHERE id = 2001;"},
    {"SeveralForwards",
     info_with_alias + "INSERT INTO resp_forward VALUES (1001, 'a@x.test'), (1001, 'b@x.test');",
     "several-forwards", "panel", "DELETE FROM resp_forward WHERE address = 'a@x.test';"},
};

class LimitServerTest : public VerifyTest
{
protected:
    /* No test may leave its server's setting to the next. */
    void TearDown() override { panel->execute("SET GLOBAL group_concat_max_len = 1048576"); }
};

/* A rebuild of this panel would not end. */
TEST_F(LimitServerTest, ALookEndsThoughAliasesDoubleTheReplies)
{
    panel->execute(info + "INSERT INTO domain_aliases SELECT 1, CONCAT('a.test.', seq) FROM seq_1_to_50;");
    make_responder_store();

    EXPECT_TRUE(look().has("alias-overlaps-domain panel"));
}

class LimitTest : public LimitServerTest, public ::testing::WithParamInterface<LimitRow>
{
protected:
    static void expect_found(const Look &seen)
    {
        const std::string line = std::string(GetParam().code) + ' ' + GetParam().remedy;

        EXPECT_EQ(seen.status, 1) << ::testing::PrintToString(seen.troubles);
        EXPECT_TRUE(seen.has(line)) << ::testing::PrintToString(seen.findings);
    }
};

TEST_P(LimitTest, IsFoundBeforeAndAfterARebuildAndIsGoneWhenMended)
{
    panel->execute(GetParam().panel);
    make_responder_store();

    expect_found(look());

    (void)rebuild();
    const Look after = look();
    expect_found(after);
    /* No rebuild mends what the limit has done. */
    EXPECT_EQ(after.summary.rebuild, 0u) << ::testing::PrintToString(after.findings);

    panel->execute(GetParam().mend);
    const Rebuild second = rebuild();
    EXPECT_EQ(second.status, 0) << second.said;
    for (const std::string &command : look().commands)
        run_shell(command);

    const Look last = look();
    EXPECT_EQ(last.status, 0) << ::testing::PrintToString(last.findings)
                              << ::testing::PrintToString(last.troubles);
}

INSTANTIATE_TEST_SUITE_P(Rows, LimitTest, ::testing::ValuesIn(limit_rows),
                         [](const auto &row) { return std::string(row.param.name); });

struct NoLimitRow {
    const char *name;
    std::string panel; /* statements that make a panel which meets none */
};

const NoLimitRow no_limit_rows[] = {
    {"AsManyMailboxesAsFit", sql_domain(1, "a.test") + numbered_mailboxes(453)},
    {"LongestAddress", sql_domain(1, "ab.test0") + sql_answering(1, 1, std::string(245, 'x'))},
    {"DomainsWithoutAliasesThatContainEachOther",
     info + sql_domain(2, "sub.a.test") + sql_answering(2, 2, "other")},
    {"ListAsLongAsTheServersLimit", "SET GLOBAL group_concat_max_len = 64;" + sql_domain(1, "a.test") +
                                        sql_answering(1, 1, std::string(30, 'x')) +
                                        sql_answering(2, 1, std::string(33, 'y'))},
    {"MailboxOfNumberZero", "SET SESSION sql_mode = 'NO_AUTO_VALUE_ON_ZERO';" + sql_domain(1, "a.test") +
                                sql_answering(0, 1, "zero") + sql_answering(2, 1, "info")},
    {"SameFileAndSameAddressTwice",
     "ALTER TABLE resp_attach DROP PRIMARY KEY; ALTER TABLE resp_forward DROP PRIMARY KEY;" +
         info_with_alias +
         "INSERT INTO resp_attach VALUES (1001, 'a.pdf'), (1001, 'a.pdf');"
         "INSERT INTO resp_forward VALUES (1001, 'a@x.test'), (1001, 'a@x.test');"},
    {"BytesThatAreNoCharacter", "ALTER TABLE mail_resp MODIFY text LONGBLOB;" + info +
                                    "UPDATE mail_resp SET text = x'4d61f1616e61f0808061f4';"},
    {"TextThatGoesOnBehindANul", info + "UPDATE mail_resp SET text = 'Back\\0soon', subject = '\\0';"},
    {"HeadersBehindAByteOrderMark", info + sql_headers("\xef\xbb\xbf {\"X-A\": \"1\"}")},
};

/* Their replies have one name, their handlers have two. */
TEST_F(LimitServerTest, InternationalisedAliasAndDomainOfItsAsciiFormAreTheSameAddress)
{
    panel->execute(info +
                   sql_alias(1, "b\xc3\xbc"
                                "cher.test") +
                   sql_domain(2, "xn--bcher-kva.test") + sql_answering(2, 2, "info"));
    EXPECT_EQ(rebuild().status, 0);

    EXPECT_EQ(look().findings.front(), "address-twice panel info@b\xc3\xbc"
                                       "cher.test");
}

TEST_F(LimitServerTest, EachOfTwoRepliesOfAnAddressIsRight)
{
    panel->execute(info + sql_alias(1, "c.test") + sql_domain(2, "c.test") + sql_answering(2, 2, "info"));
    EXPECT_EQ(rebuild().status, 0);
    EXPECT_EQ(look().codes(), Lines{"address-twice"});
}

TEST_F(LimitServerTest, EachOfSeveralForwardsIsRight)
{
    panel->execute(info + "INSERT INTO resp_forward VALUES (1001, 'a@x.test'), (1001, 'b@x.test');");
    EXPECT_EQ(rebuild().status, 0);
    for (const char *forward : {"a@x.test", "b@x.test"}) {
        change_store(responder_store, std::string("UPDATE autoresponder SET forward_to = '") + forward + "'");
        EXPECT_EQ(look().codes(), Lines{"several-forwards"}) << forward;
    }
}

class NoLimitTest : public LimitServerTest, public ::testing::WithParamInterface<NoLimitRow>
{
};

TEST_P(NoLimitTest, IsNoFindingAfterARebuild)
{
    panel->execute(GetParam().panel);
    const Rebuild run = rebuild();
    EXPECT_EQ(run.status, 0) << run.said;
    const Look seen = look();
    EXPECT_EQ(seen.status, 0) << ::testing::PrintToString(seen.findings);
}

INSTANTIATE_TEST_SUITE_P(Rows, NoLimitTest, ::testing::ValuesIn(no_limit_rows),
                         [](const auto &row) { return std::string(row.param.name); });

} // namespace

} // namespace kolmo
