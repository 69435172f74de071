#include "restore/handler_registration.h"

#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "handlers_store/handlers_db.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/handlers_store_fixture.h"

namespace kolmo
{

namespace
{

using testing::AllocFaults;
using testing::HandlersStoreTest;
using testing::Lines;

const std::string system_error = "3 System error: Cannot allocate memory";
const std::string incomplete = "3 Unable to make action for some autoresponder handlers";

/* No label of a domain has more than 63 characters. */
const std::string bad_domain = std::string(64, 'x') + ".example";

/* The row of a mailbox, as handlers_store_fixture.h shows it. */
std::string row_of(const std::string &address)
{
    return "2|1|1|90|autoresponder|" + address + "|/opt/qsx/handlers/hooks/autoresponder|responder|0";
}

/* What the driver is asked while one of these lives; given a result, it is replaced by it. */
class DriverWatch
{
public:
    DriverWatch() { current = this; }
    explicit DriverWatch(int answer) : result(answer) { current = this; }
    ~DriverWatch() { current = nullptr; }
    DriverWatch(const DriverWatch &) = delete;
    DriverWatch &operator=(const DriverWatch &) = delete;

    std::optional<int> result;
    int calls = 0;
    Lines records;
    const StoreConnection *connection = nullptr;
    HandlerAction action = nullptr;

    static DriverWatch *current;
};

DriverWatch *DriverWatch::current;

} // namespace

extern "C" {

int __real__ZN5kolmo23handlers_db_run_actionsEPKNS_11HandlerListEPNS_15StoreConnectionEPFiS4_PNS_13HandlerRecordEE(
    const HandlerList *list, StoreConnection *connection, HandlerAction action);

int __wrap__ZN5kolmo23handlers_db_run_actionsEPKNS_11HandlerListEPNS_15StoreConnectionEPFiS4_PNS_13HandlerRecordEE(
    const HandlerList *list, StoreConnection *connection, HandlerAction action)
{
    DriverWatch *const watch = DriverWatch::current;

    if (watch != nullptr) {
        watch->calls++;
        watch->records = testing::texts_of(*list);
        watch->connection = connection;
        watch->action = action;
        if (watch->result)
            return *watch->result;
    }
    return __real__ZN5kolmo23handlers_db_run_actionsEPKNS_11HandlerListEPNS_15StoreConnectionEPFiS4_PNS_13HandlerRecordEE(
        list, connection, action);
}

} // extern "C"

namespace
{

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

TEST_F(SetAutoresponderHandlers, MailboxGetsItsHandler)
{
    EXPECT_EQ(add("info", "one.example"), 0);
    EXPECT_EQ(store.rows(), Lines{row_of("info@one.example")});
}

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

/* Seen before the store lower-cases by itself. */
TEST_F(SetAutoresponderHandlers, AddressIsBuiltInLowerCase)
{
    const DriverWatch driver;

    EXPECT_EQ(add("Anna.BERG", "One.EXAMPLE"), 0);
    EXPECT_EQ(driver.records, Lines{row_of("anna.berg@one.example")});
}

TEST_F(SetAutoresponderHandlers, InternationalisedDomainIsStoredInItsAsciiForm)
{
    EXPECT_EQ(add("info", "bücher.example"), 0);
    EXPECT_EQ(store.rows(), Lines{row_of("info@xn--bcher-kva.example")});
}

TEST_F(SetAutoresponderHandlers, RecordsGoToTheDriverInOneRunWithoutAConnection)
{
    const DriverWatch driver;

    EXPECT_EQ(add("anna,info", "one.example"), 0);
    EXPECT_EQ(driver.calls, 1);
    EXPECT_EQ(driver.connection, nullptr);
    EXPECT_EQ(driver.action, handlers_db_insert_action);
    EXPECT_EQ(driver.records, (Lines{row_of("info@one.example"), row_of("anna@one.example")}));
}

TEST_F(SetAutoresponderHandlers, DriversResultIsHandedOn)
{
    const DriverWatch driver(-7);

    EXPECT_EQ(add("info", "one.example"), -7);
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
    const DriverWatch driver;

    for (const int action : {4, 1, 0, -1})
        EXPECT_EQ(set_autoresponder_handlers("info", "one.example", action), 0) << action;
    EXPECT_EQ(driver.calls, 0);
    EXPECT_EQ(store.rows(), Lines{});
}

TEST_F(SetAutoresponderHandlers, AnyOtherActionStillBuildsTheRecords)
{
    EXPECT_EQ(set_autoresponder_handlers("info", bad_domain.c_str(), 4), -1);
    EXPECT_EQ(log.take(), (Lines{"3 idn_toascii() failed: Invalid length", incomplete}));
}

TEST_F(SetAutoresponderHandlers, AddressOf254CharactersIsAccepted)
{
    const std::string name(254 - std::string("@one.example").size(), 'n');

    EXPECT_EQ(add(name, "one.example"), 0);
    EXPECT_EQ(store.rows(), Lines{row_of(name + "@one.example")});
}

TEST_F(SetAutoresponderHandlers, AddressOf255CharactersIsRefused)
{
    const std::string name(255 - std::string("@one.example").size(), 'n');

    EXPECT_EQ(add(name, "one.example"), -1);
    EXPECT_EQ(log.take(), (Lines{"3 domain name too long\n", incomplete}));
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
    const DriverWatch driver;

    EXPECT_EQ(add("anna," + std::string(255, 'n') + ",info", "one.example"), -1);
    EXPECT_EQ(log.take(), (Lines{"3 domain name too long\n", incomplete}));
    EXPECT_EQ(driver.calls, 0);
    EXPECT_EQ(store.rows(), Lines{});
}

TEST_F(SetAutoresponderHandlers, UnconvertibleDomainSkipsTheRestOfItsName)
{
    EXPECT_EQ(add("anna,info", bad_domain + ',' + bad_domain), -1);
    EXPECT_EQ(log.take(), (Lines{"3 idn_toascii() failed: Invalid length",
                                 "3 idn_toascii() failed: Invalid length", incomplete}));
    EXPECT_EQ(store.rows(), Lines{});
}

TEST_F(SetAutoresponderHandlers, UnconvertibleDomainIsExplainedInTheConversionsWords)
{
    EXPECT_EQ(add("info", "a\u0600b.example"), -1); /* a character that came after the tables */
    EXPECT_EQ(log.take(), (Lines{"3 idn_toascii() failed: Stringprep error", incomplete}));
}

TEST_F(SetAutoresponderHandlers, TooLongAddressSkipsTheRestOfItsName)
{
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

} // namespace

} // namespace kolmo
