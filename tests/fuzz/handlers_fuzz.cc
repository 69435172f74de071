/*
 * The handlers store: any sequence of its operations, and what is in it afterwards.
 *
 * The model is a list of rows in the order in which they were written last, which is the table's own.
 */
#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include <sqlite3.h>

#include "handlers_store/handlers_db.h"
#include "handlers_store/owned_handler_list.h"
#include "tests/fuzz/fuzz_support.h"

namespace kolmo::testing
{

namespace
{

constexpr char store_path[] = "file:handlers?mode=memory&cache=shared";

struct Row {
    int priority, type, queue;
    std::string name, address, executable, context;
    bool is_protected, enabled;

    [[nodiscard]] auto key() const { return std::tie(queue, type, name, address); }
    auto operator<=>(const Row &) const = default;
};

std::string lower(std::string text)
{
    for (char &c : text)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 'a' - 'A') : c;
    return text;
}

std::string domain_of(const std::string &address)
{
    const std::size_t at = address.find('@');

    return at == std::string::npos ? address : address.substr(at + 1);
}

bool is_global(const std::string &address)
{
    return address == "all" || address == "all-recipients";
}

struct Model {
    std::vector<Row> rows;

    void remove(const std::function<bool(const Row &)> &condition) { std::erase_if(rows, condition); }
    void add(Row row);
    void remove_handler(const Row &row);
    void copy_mailbox(const std::string &source, const std::string &target);
    void copy_domain(const std::string &source, const std::string &target);
    [[nodiscard]] std::vector<Row> select(const std::function<bool(const Row &)> &condition) const;
};

void Model::add(Row row)
{
    if (row.type == HANDLER_TYPE_GLOBAL) {
        row.address = row.address.empty() ? "all" : row.address;
        if (!is_global(row.address))
            return;
    }
    row.address = lower(row.address);
    remove([&](const Row &other) { return other.key() == row.key(); });
    rows.push_back(row);
}

void Model::remove_handler(const Row &row)
{
    const bool everywhere = row.type == HANDLER_TYPE_GLOBAL || row.address.empty() || row.address == "all";

    remove([&](const Row &other) {
        return other.name == row.name && other.type == row.type && other.queue == row.queue &&
               (everywhere || other.address == lower(row.address));
    });
}

std::vector<Row> Model::select(const std::function<bool(const Row &)> &condition) const
{
    std::vector<Row> found;

    std::copy_if(rows.begin(), rows.end(), std::back_inserter(found), condition);
    return found;
}

/* Batches run from the last row that was read to the first. */
void Model::copy_mailbox(const std::string &source, const std::string &target)
{
    std::vector<Row> copies = select([&](const Row &row) { return row.address == source; });

    std::reverse(copies.begin(), copies.end());
    for (Row &copy : copies) {
        copy.address = target;
        copy.is_protected = false;
        add(copy);
    }
}

void Model::copy_domain(const std::string &source, const std::string &target)
{
    const std::string pattern = '%' + source + '%';
    std::vector<Row> copies =
        select([&](const Row &row) { return sqlite3_strlike(pattern.c_str(), row.address.c_str(), 0) == 0; });

    std::reverse(copies.begin(), copies.end());
    for (Row &copy : copies) {
        const std::size_t at = copy.address.find('@');

        if (at == std::string::npos && copy.address != source)
            continue;
        copy.address = at == std::string::npos ? target : copy.address.substr(0, at + 1) + target;
        copy.is_protected = false;
        add(copy);
    }
}

std::string text_of(const char *text)
{
    return text != nullptr ? text : "";
}

Row row_of(const HandlerRecord &record)
{
    return {record.priority,
            record.type,
            record.queue,
            text_of(record.name),
            text_of(record.address),
            text_of(record.executable),
            record.context != nullptr ? record.context : "none",
            record.protect_on_restore,
            record.enabled};
}

HandlerRecord record_of(const Row &row)
{
    return {row.priority,        row.type,
            row.queue,           row.name.c_str(),
            row.address.c_str(), row.executable.c_str(),
            row.context.c_str(), row.is_protected,
            row.enabled};
}

std::vector<Row> rows_of(OwnedHandlerList *list)
{
    std::vector<Row> rows;

    for (const HandlerNode *node = list->get()->head; node != nullptr; node = node->next)
        rows.push_back(row_of(*node->record));
    return rows;
}

std::vector<Row> sorted(std::vector<Row> rows)
{
    std::sort(rows.begin(), rows.end());
    return rows;
}

/* Everything that is in the store, read without the code under test. */
std::vector<Row> stored(const StoreConnection &connection)
{
    std::vector<Row> rows;
    sqlite3_stmt *select = nullptr;
    const auto number = [&](int column) {
        return sqlite3_column_int(select, column);
    };
    const auto text = [&](int column) {
        return text_of(reinterpret_cast<const char *>(sqlite3_column_text(select, column)));
    };

    require(sqlite3_prepare_v2(connection.get(),
                               "SELECT priority, type, queue, name, address, executable, context, protected, "
                               "enabled FROM handlers",
                               -1, &select, nullptr) == SQLITE_OK,
            "the store can be read");
    while (sqlite3_step(select) == SQLITE_ROW)
        rows.push_back({number(0), number(1), number(2), text(3), text(4), text(5), text(6), number(7) != 0,
                        number(8) != 0});
    (void)sqlite3_finalize(select);
    return rows;
}

/* One sequence: what is done to the store is done to the model. */
class Sequence
{
public:
    Sequence(StoreConnection *connection, Input *input) : kept_(connection), input_(input) {}

    void step();
    void compare() const { require(sorted(stored(*kept_)) == sorted(model_.rows), "rows of the store"); }

private:
    /* The kept connection, or none, for the operation to open its own. */
    [[nodiscard]] StoreConnection *connection() { return input_->number(4) == 0 ? nullptr : kept_; }
    [[nodiscard]] std::string address();
    [[nodiscard]] std::string name();
    [[nodiscard]] Row row();
    void run_batch();
    void select_to_run();
    void select_by_address();
    void copy();
    void remove();

    StoreConnection *kept_;
    Input *input_;
    Model model_;
};

std::string Sequence::address()
{
    static const char *const known[] = {"a@d.test",   "b@d.test", "A@D.Test",     "a@sub.d.test",
                                        "a@b@d.test", "d.test",   "d_test",       "all-recipients",
                                        "all",        "",         "a@other.test", "d"};
    const std::size_t which = input_->number(std::size(known) + 1);

    return which < std::size(known) ? known[which] : input_->text().substr(0, 100);
}

std::string Sequence::name()
{
    return input_->number(3) == 0 ? "autoresponder" : input_->number(2) == 0 ? "spam" : input_->text();
}

Row Sequence::row()
{
    const auto number = [&](std::size_t count) {
        return static_cast<int>(input_->number(count));
    };

    return {number(100) - 50, number(6), number(3),      name(),        address(),
            "/hook" + name(), name(),    number(2) == 1, number(2) == 1};
}

void Sequence::run_batch()
{
    const bool adds = input_->number(3) != 0;
    const std::size_t count = input_->number(4);
    std::vector<Row> rows;
    OwnedHandlerList list;

    for (std::size_t i = 0; i < count; i++) {
        rows.push_back(row());
        const HandlerRecord record = record_of(rows.back());
        require(handler_list_append(list.get(), &record) == 0, "memory");
    }
    require(handlers_db_run_actions(list.get(), connection(),
                                    adds ? handlers_db_insert_action : handlers_db_delete_action) == 0,
            "a batch succeeds");
    for (auto one = rows.rbegin(); one != rows.rend(); one++)
        adds ? model_.add(*one) : model_.remove_handler(*one);
}

void Sequence::select_to_run()
{
    const Row filter = row();
    const HandlerRecord record = record_of(filter);
    const bool refused = filter.type == HANDLER_TYPE_GLOBAL && !is_global(filter.address);
    OwnedHandlerList list;

    require(handlers_db_select_to_run(connection(), list.get(), &record) == (refused ? -1 : 0),
            "only a wrong global address is refused");

    std::vector<Row> expected = model_.select([&](const Row &row) {
        return !refused && row.queue == filter.queue && row.type == filter.type &&
               row.enabled == filter.enabled && row.address == filter.address;
    });
    std::vector<Row> found = rows_of(&list);

    /* The order is that of the priorities, which the records do not carry. */
    for (Row &row : found) {
        const auto origin = std::find_if(expected.begin(), expected.end(),
                                         [&](const Row &one) { return one.name == row.name; });

        require(origin != expected.end() && row.priority == 0, "a handler that runs");
        row.priority = origin->priority;
    }
    require(std::is_sorted(found.begin(), found.end(),
                           [](const Row &left, const Row &right) { return left.priority < right.priority; }),
            "lowest priority first");
    for (Row &row : expected)
        row.is_protected = false;
    require(sorted(found) == sorted(expected), "handlers that run");
}

void Sequence::select_by_address()
{
    const std::string address = this->address();
    const bool exact = input_->number(2) == 1;
    OwnedHandlerList list;

    require(handlers_db_select_by_address(connection(), list.get(), address.c_str(), exact) == 0,
            "a select succeeds");

    std::vector<Row> expected = model_.select([&](const Row &row) {
        return exact ? row.address == address && row.address == domain_of(address)
                     : domain_of(row.address) == domain_of(address);
    });

    for (Row &row : expected)
        row.is_protected = false;
    require(sorted(rows_of(&list)) == sorted(expected), "handlers of an address");
}

void Sequence::copy()
{
    const std::string source = address();
    const std::string target = address();
    const std::size_t kind = input_->number(3);
    const char *const source_mail = kind > 0 ? "a" : nullptr;
    const char *const target_mail = kind > 1 ? "b" : nullptr;

    require(handlers_db_copy(connection(), source_mail, source.c_str(), target_mail, target.c_str()) == 0,
            "a copy succeeds");
    if (kind == 0)
        model_.copy_domain(source, target);
    else
        model_.copy_mailbox("a@" + source, (kind > 1 ? "b@" : "a@") + target);
}

void Sequence::remove()
{
    const std::string text = address();

    switch (input_->number(3)) {
    case 0:
        require(handlers_db_remove_by_address(connection(), text.c_str()) == 0, "removal by address");
        return model_.remove([&](const Row &row) { return row.address == text; });
    case 1:
        require(handlers_db_remove_by_name(connection(), text.c_str()) == 0, "removal by name");
        return model_.remove([&](const Row &row) { return row.name == text; });
    default:
        require(handlers_db_remove_domain(connection(), text.c_str()) == 0, "removal of a domain");
        for (const Row &row :
             model_.select([&](const Row &one) { return domain_of(one.address) == domain_of(text); }))
            model_.remove_handler(row);
    }
}

void Sequence::step()
{
    switch (input_->number(7)) {
    case 0:
        return select_to_run();
    case 1:
        return select_by_address();
    case 2:
        return copy();
    case 3:
        return remove();
    default:
        return run_batch();
    }
}

/* A store in memory for as long as this connection is open; opened anew, the path leads to the same. */
StoreConnection make_store()
{
    StoreConnection connection;

    (void)sqlite3_config(SQLITE_CONFIG_URI, 1);
    handlers_db_set_path(store_path);
    require(open_store(&connection, store_path, OpenMode::read_write) == Ending::done &&
                handlers_db_create_schema() == 0,
            "a store");
    return connection;
}

} // namespace

} // namespace kolmo::testing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    using namespace kolmo::testing;
    static kolmo::StoreConnection store = make_store();
    Input input(bytes, size);
    Sequence sequence(&store, &input);

    record_log();
    for (int steps = 0; steps < 20 && !input.is_empty(); steps++)
        sequence.step();
    sequence.compare();
    (void)sqlite3_exec(store.get(), "DELETE FROM handlers", nullptr, nullptr, nullptr);
    return 0;
}
