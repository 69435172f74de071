#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "handlers_store/handlers_db.h"
#include "tests/handlers_store/handlers_texts.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/handlers_store_fixture.h"

namespace kolmo::testing
{

namespace
{

class Copy : public HandlersStoreTest
{
protected:
    void add(const char *name, const char *address) { store.add(handler(name, address)); }

    static int copy_domain(const char *from, const char *to)
    {
        return handlers_db_copy(nullptr, nullptr, from, nullptr, to);
    }
};

/* What the process says before it ends; with a stale errno, which has nothing to do with it. */
void expect_too_long(const std::string &address, const std::function<int()> &copy)
{
    EXPECT_EXIT(
        {
            EXPECT_NE(std::freopen("/dev/null", "w", stdout), nullptr); /* it would say so twice */
            errno = ENOENT;
            (void)copy();
        },
        ::testing::ExitedWithCode(1),
        ::testing::Eq("Handler address is longer than 501 characters: " + address + '\n'));
}

TEST_F(Copy, BothMailNamesCopyOneMailboxToAnother)
{
    add("spam", "a@d.test");
    add("virus", "a@d.test");
    add("spam", "b@d.test");
    EXPECT_EQ(handlers_db_copy(nullptr, "a", "d.test", "x", "t.test"), 0);
    EXPECT_EQ(store.handlers(),
              (Lines{"a@d.test spam", "a@d.test virus", "b@d.test spam", "x@t.test spam", "x@t.test virus"}));
}

TEST_F(Copy, SourceMailNameAloneKeepsTheName)
{
    add("spam", "a@d.test");
    add("spam", "b@d.test");
    add("spam", "d.test");
    EXPECT_EQ(handlers_db_copy(nullptr, "a", "d.test", nullptr, "t.test"), 0);
    EXPECT_EQ(store.handlers(), (Lines{"a@d.test spam", "a@t.test spam", "b@d.test spam", "d.test spam"}));
}

TEST_F(Copy, NoSourceMailNameCopiesTheDomain)
{
    add("spam", "a@d.test");
    add("virus", "b@d.test");
    add("spam", "d.test");
    EXPECT_EQ(copy_domain("d.test", "t.test"), 0);
    EXPECT_EQ(store.handlers(), (Lines{"a@d.test spam", "a@t.test spam", "b@d.test virus", "b@t.test virus",
                                       "d.test spam", "t.test spam"}));
}

TEST_F(Copy, TargetMailNameIsIgnoredForADomain)
{
    add("spam", "a@d.test");
    EXPECT_EQ(handlers_db_copy(nullptr, nullptr, "d.test", "x", "t.test"), 0);
    EXPECT_EQ(store.handlers(), (Lines{"a@d.test spam", "a@t.test spam"}));
}

/* Every address that contains the domain's text is copied if it is a mailbox's; a bare one must equal it. */
TEST_F(Copy, DomainMatchIsWideForMailboxesAndExactForBareDomains)
{
    for (const char *address : {"a@d.test", "b@sub.d.test", "d.test", "d.test.org", "sub.d.test", "all"})
        add("spam", address);
    EXPECT_EQ(copy_domain("d.test", "t.test"), 0);
    EXPECT_EQ(store.handlers(),
              (Lines{"a@d.test spam", "a@t.test spam", "all spam", "b@sub.d.test spam", "b@t.test spam",
                     "d.test spam", "d.test.org spam", "sub.d.test spam", "t.test spam"}));
}

TEST_F(Copy, DomainsTextMayStandAnywhereInAMailboxesAddress)
{
    add("spam", "c@d.test.org");
    add("spam", "d.test@other.test");
    EXPECT_EQ(copy_domain("d.test", "t.test"), 0);
    EXPECT_EQ(store.handlers(),
              (Lines{"c@d.test.org spam", "c@t.test spam", "d.test@other.test spam", "d.test@t.test spam"}));
}

TEST_F(Copy, LocalPartEndsAtTheFirstAtSign)
{
    add("spam", "x@y@d.test");
    EXPECT_EQ(copy_domain("d.test", "t.test"), 0);
    EXPECT_EQ(store.handlers(), (Lines{"x@t.test spam", "x@y@d.test spam"}));
}

/* LIKE takes either case: the mailboxes are copied, the bare domain, compared exactly, is not. */
TEST_F(Copy, EmptyLocalPartIsOne)
{
    add("spam", "@d.test");
    EXPECT_EQ(copy_domain("d.test", "t.test"), 0);
    EXPECT_EQ(store.handlers(), (Lines{"@d.test spam", "@t.test spam"}));
}

/* Only a null stands for none. */
TEST_F(Copy, EmptyMailNamesAreMailNames)
{
    add("spam", "@d.test");
    add("spam", "b@d.test");
    EXPECT_EQ(handlers_db_copy(nullptr, "", "d.test", nullptr, "t.test"), 0);
    EXPECT_EQ(handlers_db_copy(nullptr, "b", "d.test", "", "u.test"), 0);
    EXPECT_EQ(store.handlers(), (Lines{"@d.test spam", "@t.test spam", "@u.test spam", "b@d.test spam"}));
}

TEST_F(Copy, DomainInCapitalsFindsTheMailboxesOnly)
{
    add("spam", "a@d.test");
    add("spam", "d.test");
    EXPECT_EQ(copy_domain("D.TEST", "t.test"), 0);
    EXPECT_EQ(store.handlers(), (Lines{"a@d.test spam", "a@t.test spam", "d.test spam"}));
}

/* An underscore in the domain stands for any character, a percent sign for any number of them. */
TEST_F(Copy, WildcardsInTheDomainMatchOtherDomains)
{
    add("spam", "a@d.test");
    add("spam", "b@dxtest");
    add("spam", "c@other.net");
    EXPECT_EQ(copy_domain("d_test", "t.test"), 0);
    EXPECT_EQ(copy_domain("o%t", "u.test"), 0);
    EXPECT_EQ(store.handlers(), (Lines{"a@d.test spam", "a@t.test spam", "b@dxtest spam", "b@t.test spam",
                                       "c@other.net spam", "c@u.test spam"}));
}

TEST_F(Copy, SourceMailboxIsComparedExactly)
{
    add("spam", "a@d.test");
    EXPECT_EQ(handlers_db_copy(nullptr, "A", "d.test", nullptr, "t.test"), 0);
    EXPECT_EQ(handlers_db_copy(nullptr, "_", "d.test", nullptr, "t.test"), 0);
    EXPECT_EQ(store.handlers(), Lines{"a@d.test spam"});
}

TEST_F(Copy, TargetIsStoredInLowerCase)
{
    add("spam", "a@d.test");
    EXPECT_EQ(handlers_db_copy(nullptr, "a", "d.test", "X", "T.Test"), 0);
    EXPECT_EQ(copy_domain("d.test", "U.Test"), 0);
    EXPECT_EQ(store.handlers(), (Lines{"a@d.test spam", "a@u.test spam", "x@t.test spam"}));
}

TEST_F(Copy, CopyHasAllFieldsButProtected)
{
    store.add({-5, 7, 3, "spam", "a@d.test", "/program", "argument", true, true});
    EXPECT_EQ(handlers_db_copy(nullptr, "a", "d.test", nullptr, "t.test"), 0);
    EXPECT_EQ(copy_domain("d.test", "u.test"), 0);
    EXPECT_EQ(store.rows(), (Lines{"3|7|1|-5|spam|a@d.test|/program|argument|1",
                                   "3|7|1|-5|spam|a@t.test|/program|argument|0",
                                   "3|7|1|-5|spam|a@u.test|/program|argument|0"}));
}

TEST_F(Copy, OnlyAnEnabledOfOneIsEnabledInTheCopy)
{
    for (const char *name : {"0", "1", "2", "-1"})
        add(name, "a@d.test");
    store.execute("UPDATE handlers SET enabled = CAST(name AS INTEGER)");
    EXPECT_EQ(handlers_db_copy(nullptr, "a", "d.test", nullptr, "t.test"), 0);
    EXPECT_EQ(copy_domain("d.test", "u.test"), 0);
    for (const char *address : {"a@t.test", "a@u.test"})
        EXPECT_EQ(
            store.query(std::string("SELECT name, enabled FROM handlers WHERE address = '") + address + "'"),
            (Lines{"-1|0", "0|0", "1|1", "2|0"}));
}

TEST_F(Copy, HandlersOfTheTargetWithTheSameKeyAreReplaced)
{
    HandlerRecord old = handler("spam", "a@t.test");

    old.executable = "/old";
    old.protect_on_restore = true;
    store.add(old);
    add("virus", "a@t.test");
    add("spam", "a@d.test");
    EXPECT_EQ(copy_domain("d.test", "t.test"), 0);
    EXPECT_EQ(store.rows(),
              (Lines{"2|1|1|10|spam|a@d.test|/hook|none|0", "2|1|1|10|spam|a@t.test|/hook|none|0",
                     "2|1|1|10|virus|a@t.test|/hook|none|0"}));
}

TEST_F(Copy, NullColumnsStayNullButForTheContextWhichBecomesNone)
{
    store.execute(
        "DROP TABLE handlers; CREATE TABLE handlers (queue, type, enabled, priority, name, address, "
        "executable, context, protected);"
        "INSERT INTO handlers VALUES (NULL, NULL, NULL, NULL, NULL, 'a@d.test', NULL, NULL, NULL);");
    EXPECT_EQ(handlers_db_copy(nullptr, "a", "d.test", nullptr, "t.test"), 0);
    EXPECT_EQ(store.query("SELECT queue, type, enabled, priority, name, executable, context, protected FROM "
                          "handlers WHERE address = 'a@t.test'"),
              Lines{"0|0|0|0|NULL|NULL|none|0"});
}

/* A global handler's address is checked like any other insert's; the rest is copied. */
TEST_F(Copy, GlobalHandlerWithAMailboxAddressIsRejectedAndTheRestIsCopied)
{
    HandlerRecord global = handler("global", "a@d.test");

    global.type = HANDLER_TYPE_GLOBAL;
    store.add(global);
    add("spam", "a@d.test");
    EXPECT_EQ(copy_domain("d.test", "t.test"), 0);
    EXPECT_EQ(log.take_one(), "3 Incorrect recipient address for global handler, expected "
                              "[NULL|EMPTY_STRING|all|all-recipients]");
    EXPECT_EQ(store.handlers(), (Lines{"a@d.test global", "a@d.test spam", "a@t.test spam"}));
}

TEST_F(Copy, NothingToCopyIsASuccess)
{
    add("spam", "a@d.test");
    EXPECT_EQ(handlers_db_copy(nullptr, "nobody", "d.test", nullptr, "t.test"), 0);
    EXPECT_EQ(copy_domain("other.test", "t.test"), 0);
    EXPECT_EQ(store.handlers(), Lines{"a@d.test spam"});
}

/* Whichever row it is: nothing is read after it, and what was read before is not written. */
TEST_F(Copy, RowThatCannotBeKeptIsReportedAndNothingIsCopied)
{
    for (const char *name : {"first", "second", "third"})
        add(name, "a@d.test");
    for (const int nth : {3, 9, 15}) { /* after two addresses six a row: node, record and four texts */
        const int result =
            without_memory(nth, [&] { return handlers_db_copy(nullptr, "a", "d.test", nullptr, "t.test"); });
        EXPECT_EQ(result, -1);
        EXPECT_EQ(log.take(), (Lines{out_of_memory, not_kept}));
        EXPECT_EQ(store.handlers(), (Lines{"a@d.test first", "a@d.test second", "a@d.test third"}));
    }
}

TEST_F(Copy, RowThatCannotBeKeptLeavesTheCallersConnectionOpen)
{
    StoreConnection connection = store.open();

    add("lost", "a@d.test");
    /* The domain, the row's target, and the node. */
    const int result = without_memory(
        3, [&] { return handlers_db_copy(&connection, nullptr, "d.test", nullptr, "t.test"); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.take(), (Lines{out_of_memory, not_kept}));
    EXPECT_TRUE(connection.is_open());
    EXPECT_EQ(store.rows().size(), 1U);
}

TEST_F(Copy, FailedReadIsReportedWithItsReasonAndLeavesTheCallersConnectionOpen)
{
    store.make_unreadable();
    StoreConnection connection = store.open();

    EXPECT_EQ(handlers_db_copy(&connection, nullptr, "d.test", nullptr, "t.test"), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to select data from handlers database: integer overflow");
    EXPECT_TRUE(connection.is_open());
}

/* Inside a transaction of the caller's the driver cannot begin its own.  The list is freed before the copy's
   line, the texts of source and target after it. */
TEST_F(Copy, FailedBatchIsReportedByTheDriverAndThenByTheCopy)
{
    StoreConnection connection = store.open();

    add("spam", "a@d.test");
    ASSERT_EQ(sqlite3_exec(connection.get(), "BEGIN", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(held_at_last_line(
                  &log, [&] { return handlers_db_copy(&connection, nullptr, "d.test", nullptr, "t.test"); }),
              std::pair(-1, std::size_t(2)));
    EXPECT_EQ(log.take(),
              (Lines{"3 Unable to begin sqlite transaction: cannot start a transaction within a transaction",
                     not_added}));
    EXPECT_FALSE(connection.is_open());
    EXPECT_EQ(store.rows().size(), 1U);
}

TEST_F(Copy, AddressOf501CharactersIsCopied)
{
    const std::string mail(499, 'm');

    add("spam", (mail + "@d").c_str());
    EXPECT_EQ(handlers_db_copy(nullptr, mail.c_str(), "d", nullptr, "t"), 0);
    EXPECT_EQ(copy_domain("d", "u"), 0);
    EXPECT_EQ(store.handlers(), (Lines{mail + "@d spam", mail + "@t spam", mail + "@u spam"}));
}

TEST_F(Copy, DomainOf501CharactersIsCopied)
{
    const std::string domain(501, 'd'), target(501, 't');

    add("spam", domain.c_str());
    EXPECT_EQ(copy_domain(domain.c_str(), target.c_str()), 0);
    EXPECT_EQ(store.handlers(), (Lines{domain + " spam", target + " spam"}));
}

TEST_F(Copy, SourceAddressOf502CharactersEndsTheProcess)
{
    const std::string mail(500, 'm');

    expect_too_long(mail + "@d", [&] { return handlers_db_copy(nullptr, mail.c_str(), "d", "x", "t"); });
}

TEST_F(Copy, TargetAddressOf502CharactersEndsTheProcess)
{
    const std::string mail(500, 'm');

    expect_too_long(mail + "@t", [&] { return handlers_db_copy(nullptr, "a", "d", mail.c_str(), "t"); });
    expect_too_long("a@" + mail, [&] { return handlers_db_copy(nullptr, "a", "d", nullptr, mail.c_str()); });
}

TEST_F(Copy, SourceDomainOf502CharactersEndsTheProcess)
{
    const std::string domain(502, 'd');

    expect_too_long(domain, [&] { return copy_domain(domain.c_str(), "t"); });
}

TEST_F(Copy, RowWithATargetOf502CharactersEndsTheProcess)
{
    const std::string mail(500, 'm');

    add("spam", (mail + "@d").c_str());
    expect_too_long(mail + "@t", [] { return copy_domain("d", "t"); });
    EXPECT_EQ(store.rows().size(), 1U);
}

TEST_F(Copy, BareDomainWithATargetOf502CharactersEndsTheProcess)
{
    const std::string target(502, 't');

    add("spam", "d");
    expect_too_long(target, [&] { return copy_domain("d", target.c_str()); });
}

} // namespace

} // namespace kolmo::testing
