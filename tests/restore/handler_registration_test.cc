#include "restore/handler_registration.h"

#include <string>

#include <gtest/gtest.h>

#include "handlers_store/handlers_db.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/handlers_store_fixture.h"
#include "tests/support/sqlite_faults.h"

namespace kolmo::testing
{

namespace
{

const std::string system_error = "3 System error: Cannot allocate memory";
const std::string incomplete = "3 Unable to make action for some autoresponder handlers";

/* No label of a domain has more than 63 characters. */
const std::string bad_domain = std::string(64, 'x') + ".example";

/* The row of a mailbox, as handlers_store_fixture.h shows it. */
std::string row_of(const std::string &address)
{
    return "2|1|1|90|autoresponder|" + address + "|/opt/qsx/handlers/hooks/autoresponder|responder|0";
}

class SetAutoresponderHandlers : public HandlersStoreTest
{
protected:
    static int add(const std::string &mail_names, const std::string &domains)
    {
        return set_autoresponder_handlers(mail_names.c_str(), domains.c_str(), HANDLER_ACTION_ADD);
    }

    /* What is logged when the nth allocation of a registration of info in one.example fails. */
    Lines log_without_memory(int nth)
    {
        int result;
        {
            const AllocFaults faults(nth);
            result = set_autoresponder_handlers("info", "one.example", HANDLER_ACTION_ADD);
        }
        EXPECT_EQ(result, -1) << nth;
        EXPECT_EQ(store.rows(), Lines{}) << nth;
        return log.take();
    }
};

TEST_F(SetAutoresponderHandlers, EachMailboxInEachDomainGetsItsHandler)
{
    EXPECT_EQ(add("anna,info", "one.example,two.example"), 0);
    EXPECT_EQ(store.rows(), (Lines{row_of("anna@one.example"), row_of("anna@two.example"),
                                   row_of("info@one.example"), row_of("info@two.example")}));
}

TEST_F(SetAutoresponderHandlers, RunsOfCommasAndBlanksSeparate)
{
    EXPECT_EQ(add(", anna, ,info", " one.example , two.example"), 0);
    EXPECT_EQ(store.query("SELECT address FROM handlers"),
              (Lines{"anna@one.example", "anna@two.example", "info@one.example", "info@two.example"}));
}

/* As a list that ends in a delimiter has an empty text at its end. */
TEST_F(SetAutoresponderHandlers, DelimiterAtTheEndMakesOneNameMore)
{
    EXPECT_EQ(add("info,", "one.example"), 0);
    EXPECT_EQ(store.query("SELECT address FROM handlers"), (Lines{"@one.example", "info@one.example"}));
}

/* Seen before the store lower-cases by itself. */
TEST_F(SetAutoresponderHandlers, RecordsGoToTheStoreInOneTransactionOnAConnectionOfItsOwnInLowerCase)
{
    const SqliteFaults sqlite;
    Lines addresses;

    EXPECT_EQ(add("Anna.BERG,info", "One.EXAMPLE"), 0);
    for (const std::string &call : sqlite.calls()) {
        if (call.rfind("bind 4 ", 0) == 0)
            addresses.push_back(call);
    }
    EXPECT_EQ(addresses, (Lines{"bind 4 'info@one.example'", "bind 4 'anna.berg@one.example'"}));
    EXPECT_EQ(sqlite.count("open"), 1);
    EXPECT_EQ(sqlite.count("prepare BEGIN TRANSACTION;"), 1);
}

TEST_F(SetAutoresponderHandlers, FailingDriverReportsForItself)
{
    const std::string path = store.folder().path("missing/handlers.db");

    handlers_db_set_path(path.c_str());

    EXPECT_EQ(add("info", "one.example"), -1);
    EXPECT_EQ(log.take_one(), "3 Unable to open database " + path + ": unable to open database file");
}

TEST_F(SetAutoresponderHandlers, DeletionTakesTheNamedHandlersAway)
{
    ASSERT_EQ(add("anna,info", "one.example"), 0);

    EXPECT_EQ(set_autoresponder_handlers("ANNA", "one.example", HANDLER_ACTION_DELETE), 0);
    EXPECT_EQ(store.rows(), Lines{row_of("info@one.example")});
}

TEST_F(SetAutoresponderHandlers, AnyOtherActionAppliesNothing)
{
    const SqliteFaults sqlite;

    for (const int action : {4, 1, 0, -1})
        EXPECT_EQ(set_autoresponder_handlers("info", "one.example", action), 0) << action;
    EXPECT_EQ(sqlite.calls(), Lines{});
}

TEST_F(SetAutoresponderHandlers, AnyOtherActionStillBuildsTheRecords)
{
    EXPECT_EQ(set_autoresponder_handlers("info", bad_domain.c_str(), 4), -1);
    EXPECT_EQ(log.take(), (Lines{"3 idn_toascii() failed: Invalid length", incomplete}));
}

/* The length that counts is that of the ASCII form. */
TEST_F(SetAutoresponderHandlers, LengthIsThatOfTheAsciiDomain)
{
    const std::string name(255 - std::string("@xn--bcher-kva.example").size(), 'n');

    EXPECT_EQ(add(name, "bücher.example"), -1);
    EXPECT_EQ(log.take(), (Lines{"3 domain name too long\n", incomplete}));
}

TEST_F(SetAutoresponderHandlers, OneBadRecordKeepsAllOthersFromBeingApplied)
{
    const SqliteFaults sqlite;

    EXPECT_EQ(add("anna," + std::string(255, 'n') + ",info", "one.example"), -1);
    EXPECT_EQ(log.take(), (Lines{"3 domain name too long\n", incomplete}));
    EXPECT_EQ(sqlite.calls(), Lines{});
}

TEST_F(SetAutoresponderHandlers, DomainThatCannotBeUsedSkipsTheRestOfItsName)
{
    const std::string unconvertible = "3 idn_toascii() failed: Invalid length";

    EXPECT_EQ(add("anna,info", bad_domain + ',' + bad_domain), -1);
    EXPECT_EQ(log.take(), (Lines{unconvertible, unconvertible, incomplete}));
    EXPECT_EQ(add(std::string(255, 'n') + ",info", "one.example,two.example"), -1);
    EXPECT_EQ(log.take(), (Lines{"3 domain name too long\n", incomplete}));
}

/* Names and domains are copied and taken apart by three allocations each. */
TEST_F(SetAutoresponderHandlers, SplitOfTheNamesWithoutMemoryIsReported)
{
    EXPECT_EQ(log_without_memory(1), (Lines{system_error + '\n', "3 Unable to split mailnames list"}));
    EXPECT_EQ(log_without_memory(2), (Lines{system_error + '\n', "3 Unable to add string into array",
                                            "3 Unable to split mailnames list"}));
}

TEST_F(SetAutoresponderHandlers, SplitOfTheDomainsWithoutMemoryIsReported)
{
    EXPECT_EQ(log_without_memory(4), (Lines{system_error + '\n', "3 Unable to split domains list"}));
    EXPECT_EQ(log_without_memory(6), (Lines{system_error + '\n', "3 Unable to add string into array",
                                            "3 Unable to split domains list"}));
}

TEST_F(SetAutoresponderHandlers, ListWithoutMemoryReportsItselfAndNothingIsApplied)
{
    EXPECT_EQ(log_without_memory(7), (Lines{system_error, incomplete}));
    EXPECT_EQ(log_without_memory(8),
              (Lines{system_error, "3 Unable to clone handlers data record", incomplete}));
}

TEST_F(SetAutoresponderHandlers, ListWithoutMemoryGoesOnWithTheNextName)
{
    const std::string names = "anna," + std::string(255, 'n');
    int result;
    {
        const AllocFaults faults(9); /* the first after the two lists of texts */
        result = set_autoresponder_handlers(names.c_str(), "one.example", HANDLER_ACTION_ADD);
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log.take(), (Lines{system_error, "3 domain name too long\n", incomplete}));
}

TEST_F(SetAutoresponderHandlers, AllIsFreedBeforeItIsLoggedThatNothingIsApplied)
{
    const std::string names = "anna," + std::string(255, 'n');

    EXPECT_EQ(held_at_last_line(&log, [&] { return add(names, "one.example"); }),
              std::pair(-1, std::size_t(0)));
    EXPECT_EQ(log.take(), (Lines{"3 domain name too long\n", incomplete}));
}

/* What the texts were split into; a record, its four texts and its place in the list are held. */
TEST_F(SetAutoresponderHandlers, SplitsAreFreedBeforeTheStoreIsOpened)
{
    const std::string path = store.folder().path("missing/handlers.db");

    handlers_db_set_path(path.c_str());
    EXPECT_EQ(held_at_last_line(&log, [] { return add("info", "one.example"); }),
              std::pair(-1, std::size_t(6)));
    (void)log.take_one();
}

} // namespace

} // namespace kolmo::testing
