/* Every call and every pause of the six operations on the responder store fails once. */
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include "tests/responder_store/responder_operations.h"
#include "tests/support/alloc_faults.h"
#include "tests/support/sqlite_faults.h"
#include "tests/support/store_sweep.h"

namespace kolmo::testing
{

namespace
{

class ResponderSweep : public ResponderStoreTest, protected StoreSweep
{
protected:
    ResponderSweep() : StoreSweep(store, log) {}

    void fill() override
    {
        store.execute("DELETE FROM autoresponder; DELETE FROM attachments; DELETE FROM extra_headers;" +
                      rows);
    }

    [[nodiscard]] Lines contents() override { return store.rows(); }

    /* One statement of a transaction, in a store with `old`; its parameters by name and value. */
    [[nodiscard]] FaultTable statement(const std::string &sql, const Bound &parameters,
                                       const std::string &refused, int result, Connection connection,
                                       const Lines &contents_when_refused) const
    {
        Bound bound;

        for (const auto &[name, value] : parameters)
            bound.emplace_back(value, "Unable to bind parameter " + name + ": ");
        return statement_rows(sql, bound, old) +
               open_after("step", refused, result, connection, contents_when_refused);
    }

    /* BEGIN and END take two calls that are tried again each, like the statements; only END's step commits.
     */
    void sweep_transaction(const FaultTable &statements, const Lines &after, const Operation &operation)
    {
        const auto count = std::count_if(statements.begin(), statements.end(),
                                         [](const FaultRow &row) { return row.call == "step"; });

        sweep_calls(open_row(old) + begin_rows(old) + statements + end_rows(old) + close_row(after),
                    operation);
        sweep_busy_calls_and_pauses(2 + 2 * static_cast<int>(count) + 1, old, after, operation);
    }

    std::string rows; /* what fill() writes, as SQL */
    Lines old;        /* and as lines */
};

TEST_F(ResponderSweep, AddAutoresponderFailsInItsOwnWayAtEveryCallAndPause)
{
    rows = "INSERT INTO autoresponder (mn, body) VALUES ('box@example.com', 'old')";
    old = {"autoresponder: box@example.com|NULL|NULL|NULL|NULL|NULL|NULL|NULL|old|NULL|NULL|NULL"};
    sweep_transaction(
        statement(
            "REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, "
            "charset, body, ans_freq, ans_limit, real_owner, mn) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
            "?, ?  );",
            {{"keystr", "'key'"},
             {"key_where", "'where'"},
             {"subject", "'Subject'"},
             {"reply_to", "'Reply@Example.org'"},
             {"forward_to", "'Forward@Example.org'"},
             {"content_type", "'text/plain'"},
             {"charset", "'UTF-8'"},
             {"body", "'Gone\nfishing'"},
             {"ans_freq", "17"},
             {"ans_limit", "-3"},
             {"real_owner", "'owner@example.com'"},
             {"mailname", "'box@example.com'"}},
            "Unable to add/update autoresponder (box@example.com): ", -1, Connection::in_transaction, old),
        {"autoresponder: " + sample_row("box@example.com", "owner@example.com")}, add_autoresponder);
}

TEST_F(ResponderSweep, RemoveAutoresponderFailsInItsOwnWayAtEveryCallAndPause)
{
    rows = "INSERT INTO autoresponder (mn, body) VALUES ('box@example.com', 'old')";
    old = {"autoresponder: box@example.com|NULL|NULL|NULL|NULL|NULL|NULL|NULL|old|NULL|NULL|NULL"};
    sweep_transaction(
        statement("DELETE FROM autoresponder WHERE mn = ?;", {{"mailname", "'box@example.com'"}},
                  "Unable to add autoresponder data (box@example.com): ", 0, Connection::open, old),
        {}, remove_autoresponder);
}

TEST_F(ResponderSweep, AddAttachmentsFailsInItsOwnWayAtEveryCallAndPause)
{
    const std::string sql = "REPLACE INTO attachments VALUES (?, ?  );";
    const std::string refused = "Unable to add autoresponder attachment (box@example.com): ";
    const std::string box = "'box@example.com'";
    const Lines after = {"attachments: box@example.com|one.txt", "attachments: box@example.com|Two.txt"};

    sweep_transaction(statement(sql, {{"mailname", box}, {"filename", "'one.txt'"}}, refused, 0,
                                Connection::open, {after[1]}) +
                          statement(sql, {{"mailname", box}, {"filename", "'Two.txt'"}}, refused, 0,
                                    Connection::open, {after[0]}),
                      after, add_attachments);
}

TEST_F(ResponderSweep, RemoveAttachmentsFailsInItsOwnWayAtEveryCallAndPause)
{
    rows = "INSERT INTO attachments VALUES ('box@example.com', 'old')";
    old = {"attachments: box@example.com|old"};
    sweep_transaction(statement("DELETE FROM attachments WHERE mn = ?;", {{"mailname", "'box@example.com'"}},
                                "Unable to add autoresponder attachment (box@example.com): ", 0,
                                Connection::open, old),
                      {}, remove_attachments);
}

TEST_F(ResponderSweep, AddExtraHeadersFailsInItsOwnWayAtEveryCallAndPause)
{
    const std::string sql = "REPLACE INTO extra_headers VALUES (?, ?  );";
    const std::string refused = "Unable to add autoresponder extra headers: ";
    const Lines after = {"extra_headers: X-One|1", "extra_headers: X-Two|2"};

    sweep_transaction(
        statement(sql, {{"name", "'X-One'"}, {"value", "'1'"}}, refused, 0, Connection::open, {after[1]}) +
            statement(sql, {{"name", "'X-Two'"}, {"value", "'2'"}}, refused, 0, Connection::open, {after[0]}),
        after, add_extra_headers);
}

TEST_F(ResponderSweep, RemoveExtraHeadersFailsInItsOwnWayAtEveryCallAndPause)
{
    rows = "INSERT INTO extra_headers VALUES ('X-Old', 'old')";
    old = {"extra_headers: X-Old|old"};
    sweep_calls(open_row(old) +
                    open_after("exec DELETE FROM extra_headers",
                               "Unable to remove autoresponder extra headers: ", SQLITE_ERROR,
                               Connection::open, old) +
                    close_row({}),
                remove_extra_headers);
    sweep_busy_calls_and_pauses(0, old, {}, remove_extra_headers);
}

/* The first of two is refused; a count of none or less writes nothing. */
class ResponderRows : public ResponderStoreTest
{
protected:
    static int add_files(StoreConnection *connection, int count)
    {
        const char *const files[] = {"same", "same"};

        return responder_db_add_attachments(connection, "Box", "example.com", files, count);
    }

    static int add_headers(StoreConnection *connection, int count)
    {
        const char *const names[] = {"X-A", "X-A"};
        const char *const values[] = {"first", "second"};

        return responder_db_add_extra_headers(connection, names, values, count);
    }

    /* From now on an INSERT or DELETE of these rows is refused so. */
    void refuse(const std::string &what, const std::string &how) const
    {
        store.execute("CREATE TRIGGER refuse BEFORE " + what + " BEGIN SELECT RAISE(" + how + ", 'no'); END");
    }

    StoreConnection connection = store.open();
};

TEST_F(ResponderRows, CountOfZeroTouchesNothingAndANegativeOneRunsAnEmptyTransaction)
{
    for (const auto add : {add_files, add_headers}) {
        for (StoreConnection *const used : {&connection, static_cast<StoreConnection *>(nullptr)}) {
            const SqliteFaults faults;
            Lines opened = {"open " + store.path(), "busy_timeout 50", "close"};

            EXPECT_EQ(add(used, 0), 0);
            EXPECT_EQ(faults.calls(), used == nullptr ? opened : Lines{});
        }

        const SqliteFaults faults;

        EXPECT_EQ(add(&connection, -1), 0);
        EXPECT_EQ(faults.calls(), (Lines{"prepare BEGIN TRANSACTION;", "step", "finalize",
                                         "prepare END TRANSACTION;", "step", "finalize"}));
    }
}

TEST_F(ResponderRows, SameRowTwiceIsReplaced)
{
    EXPECT_EQ(add_files(&connection, 2), 0);
    EXPECT_EQ(add_headers(&connection, 2), 0);
    EXPECT_EQ(store.rows(), (Lines{"attachments: box@example.com|same", "extra_headers: X-A|second"}));
}

struct Refusal {
    const char *what; /* is refused */
    int (*operation)(StoreConnection *);
    std::string line;
    Lines rows; /* when the others are written */
};

const std::string file_line = "3 Unable to add autoresponder attachment (box@example.com): no";

const Refusal refusals[] = {
    {"INSERT ON attachments WHEN NEW.filename = 'one.txt'",
     add_attachments,
     file_line,
     {"attachments: box@example.com|Two.txt"}},
    {"INSERT ON extra_headers WHEN NEW.name = 'X-One'",
     add_extra_headers,
     "3 Unable to add autoresponder extra headers: no",
     {"extra_headers: X-Two|2"}},
    {"DELETE ON autoresponder",
     remove_autoresponder,
     "3 Unable to add autoresponder data (box@example.com): no",
     {"autoresponder: box@example.com|NULL|NULL|NULL|NULL|NULL|NULL|NULL|old|NULL|NULL|NULL"}},
    {"DELETE ON attachments", remove_attachments, file_line, {"attachments: box@example.com|old"}},
};

void add_old_rows(const ResponderStore &store, const Refusal &refusal)
{
    store.execute("DELETE FROM autoresponder; DELETE FROM attachments; DELETE FROM extra_headers");
    if (refusal.operation == remove_autoresponder)
        store.execute("INSERT INTO autoresponder (mn, body) VALUES ('box@example.com', 'old')");
    if (refusal.operation == remove_attachments)
        store.execute("INSERT INTO attachments VALUES ('box@example.com', 'old')");
}

/* A deletion is called an addition. */
TEST_F(ResponderRows, RefusedRowIsReportedAndTheRestIsWritten)
{
    for (const Refusal &refusal : refusals) {
        add_old_rows(store, refusal);
        refuse(refusal.what, "ABORT");
        EXPECT_EQ(refusal.operation(&connection), 0);
        EXPECT_EQ(log.take_one(), refusal.line);
        EXPECT_EQ(store.rows(), refusal.rows);
        EXPECT_TRUE(connection.is_open());
        EXPECT_FALSE(in_transaction(connection));
        store.execute("DROP TRIGGER refuse");
    }
}

TEST_F(ResponderRows, RefusalThatRollsBackMakesTheEndFail)
{
    for (const Refusal &refusal : refusals) {
        StoreConnection own = store.open();

        add_old_rows(store, refusal);
        refuse(refusal.what, "ROLLBACK");
        EXPECT_EQ(refusal.operation(&own), -1);
        EXPECT_EQ(log.take().front(), refusal.line);
        EXPECT_FALSE(own.is_open());
        store.execute("DROP TRIGGER refuse");
    }
}

const SqliteFaults *watched;

/* What has been called when a mailname cannot be formed, which ends the process. */
TEST_F(ResponderSweep, MailnamesAreFormedFirstButForAttachmentsOnceTheTransactionHasBegun)
{
    const struct {
        int (*operation)(StoreConnection *);
        int nth; /* the mailname, the owner's */
        std::size_t calls;
    } cases[] = {{add_autoresponder, 1, 0},
                 {add_autoresponder, 2, 0},
                 {remove_autoresponder, 1, 0},
                 {remove_attachments, 1, 0},
                 {add_attachments, 1, 3}};

    for (const bool own : {false, true}) {
        for (const auto &row : cases) {
            EXPECT_EXIT(
                {
                    StoreConnection connection = store.open();
                    const SqliteFaults faults;
                    watched = &faults;
                    (void)std::atexit(
                        [] { (void)std::fprintf(stderr, "%zu calls", watched->calls().size()); });
                    const AllocFaults memory(row.nth);
                    (void)row.operation(own ? nullptr : &connection);
                },
                ::testing::ExitedWithCode(1),
                std::string(no_memory_for_a_name) + "System error 12: Cannot allocate memory\n" +
                    std::to_string(row.calls + (own ? 2 : 0)) + " calls"); /* open, busy_timeout */
        }
    }
}

/* The exit code is another one when the name that is not needed is formed all the same. */
TEST_F(ResponderSweep, NoAttachmentsFormNoMailname)
{
    EXPECT_EXIT(
        {
            StoreConnection connection = store.open();
            const AllocFaults memory(1);
            _exit(responder_db_add_attachments(&connection, "box", "example.com", nullptr, 0) == 0 ? 7 : 8);
        },
        ::testing::ExitedWithCode(7), "");
}

} // namespace

} // namespace kolmo::testing
