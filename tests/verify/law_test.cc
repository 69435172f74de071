/*
 * After a rebuild that ended with 0 and in silence, of a panel that meets no limit, there is nothing to find.
 *
 * KOLMO_VERIFY_PANELS: how many random panels; 500 without it.  KOLMO_VERIFY_SEED: the first one's seed.
 */
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "tests/verify/verify_world.h"

namespace kolmo
{

namespace
{

using namespace testing;

/* A panel of a few domains, whose names never contain each other and whose texts are what people write. */
class RandomPanel : private Dice
{
public:
    using Dice::Dice;

    std::string sql();

private:
    std::string letters(int count);
    std::string local();
    std::string text(int most);
    std::string name_or_null(int most) { return one_in(4) ? "NULL" : sql_literal(text(most)); }
    std::string domain(int id);
    std::string mailbox(int domain);
    std::string reply(int mailbox, const std::string &name);
    std::string headers();

    int mailboxes_ = 0;
    int replies_ = 0;
    std::set<std::string> locals_;
};

std::string RandomPanel::letters(int count)
{
    std::string word;

    for (int i = 0; i < count; i++)
        word += static_cast<char>('a' + upto(25));
    return word;
}

std::string RandomPanel::local()
{
    static const char *const pieces[] = {
        "a", "B", "z", "7", ".", "-", "_", "+", "'", "%", "\"", "\xc3\xbc", "\xe4\xb8\xad", "Q", "&"};
    std::string name;

    do {
        name += pieces[upto(static_cast<int>(std::size(pieces)) - 1)];
    } while (!one_in(4) || locals_.contains(name));
    locals_.insert(name);
    return name + letters(3);
}

std::string RandomPanel::text(int most)
{
    static const char *const pieces[] = {
        "word",         " ",   "\n", "\r\n", "'", "\"", "\\",   "%s",   ";", "--", "\xc3\xa4",
        "\xe2\x82\xac", "<b>", "\t", "0",    ",", "@",  "\x01", "NULL", "{", "}"};
    std::string result;

    for (int i = upto(most); i > 0; i--)
        result += pieces[upto(static_cast<int>(std::size(pieces)) - 1)];
    return result;
}

std::string RandomPanel::reply(int mailbox, const std::string &name)
{
    static const char *const wheres[] = {"'no'", "'subj'", "'body'"};
    const std::string id = std::to_string(++replies_);
    std::string rows = "INSERT INTO mail_resp VALUES (" + id + ", " + std::to_string(mailbox) + ", '" + name +
                       "', " + name_or_null(5) + ", " + wheres[upto(2)] + ", " + name_or_null(8) + ", " +
                       name_or_null(4) + ", " + name_or_null(3) + ", " + name_or_null(3) + ", " +
                       name_or_null(one_in(10) ? 3000 : 30) + ", 'true', " +
                       std::to_string(upto(2) == 0 ? -upto(5) : upto(1 << 30)) + ", " +
                       std::to_string(upto(1000)) + ");";

    if (one_in(3))
        rows += "INSERT INTO resp_forward VALUES (" + id + ", " + sql_literal(text(4)) + ");";
    for (int i = one_in(3) ? upto(3) : 0; i > 0; i--)
        rows += "INSERT IGNORE INTO resp_attach VALUES (" + id + ", " +
                sql_literal(std::to_string(i) + text(3)) + ");";
    return rows;
}

std::string RandomPanel::mailbox(int domain)
{
    const int id = ++mailboxes_;
    const bool answers = !one_in(4);
    std::string rows = "INSERT INTO mail VALUES (" + std::to_string(id) + ", " + std::to_string(domain) +
                       ", " + sql_literal(local()) + ", '" + (answers ? "true" : "false") + "');";

    if (answers || one_in(2))
        rows += reply(id, "default");
    if (one_in(5))
        rows += reply(id, "other");
    return rows;
}

std::string RandomPanel::domain(int id)
{
    const bool is_idn = one_in(4);
    std::string rows =
        is_idn ? sql_domain(id, "b\xc3\xbc" + letters(5) + ".test") : sql_domain(id, letters(6) + ".test");

    if (one_in(6))
        rows += "DELETE FROM DomainServices WHERE dom_id = " + std::to_string(id) + ";";
    if (!is_idn)
        for (int i = upto(3); i > 1; i--)
            rows += sql_alias(id, letters(6) + ".example");
    locals_.clear();
    for (int i = upto(5); i > 0; i--)
        rows += mailbox(id);
    return rows;
}

std::string RandomPanel::headers()
{
    static const char *const settings[] = {"", "{}", R"({"X-A": "1"})",
                                           R"({"X-A": 1.50, "X-B": true, "X-A": "\u00fc'"})",
                                           R"({"X-A": {"deep": 1}, "X-B": null, "": "no name"})"};

    return sql_headers(settings[upto(static_cast<int>(std::size(settings)) - 1)]);
}

std::string RandomPanel::sql()
{
    std::string rows = headers();

    for (int id = 1 + upto(3); id > 0; id--)
        rows += domain(id);
    return rows;
}

class LawTest : public VerifyTest
{
};

TEST_F(LawTest, ASilentRebuildLeavesNothingToFind)
{
    const int count = number_from_environment("KOLMO_VERIFY_PANELS", 500);
    const int first = number_from_environment("KOLMO_VERIFY_SEED", 1);
    unsigned long mailboxes = 0;
    const std::string no_handlers = "DELETE FROM handlers WHERE name = 'autoresponder'";

    panel->execute("SET autocommit = 0");
    for (int seed = first; seed < first + count && !HasFailure(); seed++) {
        SCOPED_TRACE("KOLMO_VERIFY_SEED=" + std::to_string(seed));
        clear_panel();
        panel->execute(RandomPanel(static_cast<unsigned int>(seed)).sql() + "COMMIT");
        change_store(handlers_store, no_handlers);

        const Rebuild run = rebuild();

        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.said, "");

        const Look seen = look();

        EXPECT_EQ(seen.status, 0);
        EXPECT_EQ(seen.findings, Lines{});
        EXPECT_EQ(seen.troubles, Lines{});
        mailboxes += seen.summary.mailboxes;
    }
    EXPECT_GT(mailboxes, static_cast<unsigned long>(count)) << "hardly anything was looked at";
}

} // namespace

} // namespace kolmo
