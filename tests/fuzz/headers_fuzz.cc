/* The extra headers' setting: a reader of JSON that is as simple as it can be, and the rows in the store. */
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <sqlite3.h>

#include "restore/extra_reply_headers.h"
#include "tests/fuzz/fuzz_support.h"

namespace kolmo::testing
{

namespace
{

using Pairs = std::vector<std::pair<std::string, std::string>>;

/* Recursive descent over RFC 8259; every step answers whether the text goes on as it must. */
class Json
{
public:
    explicit Json(std::string text) : text_(std::move(text)) {}

    /* The members of the root; none when it is a bare value. */
    [[nodiscard]] bool read(Pairs *members);

private:
    [[nodiscard]] char now() const { return at_ < text_.size() ? text_[at_] : '\0'; }
    [[nodiscard]] bool take(const std::string &word)
    {
        const bool found = text_.compare(at_, word.size(), word) == 0;

        at_ += found ? word.size() : 0;
        return found;
    }
    void skip_space()
    {
        while (take(" ") || take("\t") || take("\n") || take("\r"))
            continue;
    }
    [[nodiscard]] bool members(char end, Pairs *found);
    [[nodiscard]] bool value(std::string *found, Pairs *inside);
    [[nodiscard]] bool string(std::string *found);
    [[nodiscard]] bool escape(std::string *found);
    [[nodiscard]] bool code_unit(unsigned *unit);
    [[nodiscard]] bool code_point(std::string *found);
    [[nodiscard]] bool digits();
    [[nodiscard]] bool number(std::string *found);

    std::string text_;
    std::size_t at_ = 0;
};

bool Json::read(Pairs *members)
{
    std::string scalar;

    if (!text_.empty() && text_[0] == '\xef') /* whatever the mark of UTF-8 begins with is taken for it */
        at_ = std::min<std::size_t>(3, text_.size());
    if (!value(&scalar, members))
        return false;
    skip_space();
    return at_ == text_.size();
}

/* What stands between the brackets of an object or array, of which the first was taken. */
bool Json::members(char end, Pairs *found)
{
    skip_space();
    if (take(std::string(1, end)))
        return true;
    do {
        std::string name;
        std::string member;
        Pairs inside;

        skip_space();
        if (end == '}') {
            if (!string(&name))
                return false;
            skip_space();
            if (!take(":"))
                return false;
        }
        if (!value(&member, &inside))
            return false;
        found->emplace_back(name, member);
        skip_space();
    } while (take(","));
    return take(std::string(1, end));
}

bool Json::value(std::string *found, Pairs *inside)
{
    skip_space();
    if (take("{"))
        return members('}', inside);
    if (take("["))
        return members(']', inside);
    if (now() == '"')
        return string(found);
    for (const char *word : {"true", "false", "null"}) {
        if (take(word)) {
            *found = word;
            return true;
        }
    }
    return number(found);
}

bool Json::string(std::string *found)
{
    if (!take("\""))
        return false;
    while (!take("\"")) {
        const auto byte = static_cast<unsigned char>(now());
        const std::size_t length = byte < 0x80 ? 1 : byte < 0xe0 ? 2 : byte < 0xf0 ? 3 : 4;

        if (byte < 0x20 || (byte >= 0x80 && byte < 0xc0) || byte >= 0xf8)
            return false;
        if (take("\\")) {
            if (!escape(found))
                return false;
            continue;
        }
        for (std::size_t i = 0; i < length; i++) {
            if (i > 0 && (static_cast<unsigned char>(now()) & 0xc0) != 0x80)
                return false;
            *found += now();
            at_++;
        }
    }
    return true;
}

bool Json::escape(std::string *found)
{
    static const std::string letters = "\"\\/bfnrt";
    static const std::string meanings = "\"\\/\b\f\n\r\t";
    const std::size_t which = now() == '\0' ? std::string::npos : letters.find(now());

    if (take("u"))
        return code_point(found);
    if (which == std::string::npos)
        return false;
    at_++;
    *found += meanings[which];
    return true;
}

bool Json::code_unit(unsigned *unit)
{
    *unit = 0;
    for (int i = 0; i < 4; i++, at_++) {
        const std::string digit(1, now());

        if (digit.find_first_of("0123456789abcdefABCDEF") == std::string::npos)
            return false;
        *unit = *unit * 16 + static_cast<unsigned>(std::stoi(digit, nullptr, 16));
    }
    return true;
}

bool Json::code_point(std::string *found)
{
    unsigned point;
    unsigned low;

    if (!code_unit(&point) || (point >= 0xdc00 && point < 0xe000))
        return false;
    if (point >= 0xd800 && point < 0xdc00) {
        if (!take("\\u") || !code_unit(&low) || low < 0xdc00 || low >= 0xe000)
            return false;
        point = 0x10000 + (point - 0xd800) * 0x400 + (low - 0xdc00);
    }
    if (point < 0x80) {
        *found += static_cast<char>(point);
        return true;
    }

    const int tails = point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
    const unsigned leads[] = {0, 0xc0, 0xe0, 0xf0};

    *found += static_cast<char>(leads[tails] | (point >> (6 * tails)));
    for (int i = tails - 1; i >= 0; i--)
        *found += static_cast<char>(0x80 | ((point >> (6 * i)) & 0x3f));
    return true;
}

bool Json::digits()
{
    const std::size_t start = at_;

    while (now() >= '0' && now() <= '9')
        at_++;
    return at_ > start;
}

bool Json::number(std::string *found)
{
    const std::size_t start = at_;

    (void)take("-");
    if (!take("0") && !digits())
        return false;
    if (take(".") && !digits())
        return false;
    if (take("e") || take("E")) {
        if (!take("+"))
            (void)take("-");
        if (!digits())
            return false;
    }
    *found = text_.substr(start, at_ - start);
    return true;
}

sqlite3 *open_store_in_memory()
{
    sqlite3 *store = nullptr;

    require(sqlite3_open(":memory:", &store) == SQLITE_OK &&
                sqlite3_exec(store, "CREATE TABLE extra_headers (name TEXT NOT NULL UNIQUE, value TEXT)",
                             nullptr, nullptr, nullptr) == SQLITE_OK,
            "a store");
    return store;
}

std::map<std::string, std::string> take_rows(sqlite3 *store)
{
    std::map<std::string, std::string> rows;
    sqlite3_stmt *select = nullptr;
    const auto text = [&](int column) {
        return std::string(reinterpret_cast<const char *>(sqlite3_column_text(select, column)));
    };

    require(sqlite3_prepare_v2(store, "SELECT name, value FROM extra_headers", -1, &select, nullptr) ==
                SQLITE_OK,
            "the store can be read");
    while (sqlite3_step(select) == SQLITE_ROW)
        rows[text(0)] = text(1);
    (void)sqlite3_finalize(select);
    if (!rows.empty())
        (void)sqlite3_exec(store, "DELETE FROM extra_headers", nullptr, nullptr, nullptr);
    return rows;
}

} // namespace

} // namespace kolmo::testing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    using namespace kolmo::testing;
    static kolmo::StoreConnection store(open_store_in_memory());
    const std::string json = Input(bytes, size).text();
    std::map<std::string, std::string> expected;
    Pairs pairs;

    record_log();
    const int result = kolmo::store_extra_headers(&store, json.c_str());
    const bool is_json = Json(json).read(&pairs);
    const Lines log = take_log();

    require(result == (is_json ? 0 : -1), "whether it is JSON");
    require(log.size() == (is_json ? 0 : 1), "a line for a text that is none");
    require(is_json || log[0].rfind("3 Unable to parse auto-reply headers json: ", 0) == 0, "its words");
    for (const auto &[name, value] : pairs)
        if (is_json)
            expected[until_zero(name)] = until_zero(value); /* the last of a name stays */
    require(take_rows(store.get()) == expected, "rows");
    return 0;
}
