#include "refresh/publisher.h"

#include <array>
#include <chrono>
#include <set>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "common/owned.h"
#include "refresh/file_replacement.h"
#include "refresh/live_stores.h"
#include "refresh/row_difference.h"
#include "refresh/row_recheck.h"
#include "refresh/row_writer.h"

namespace kolmo
{

namespace
{

constexpr std::array responder_tables = {ChangedTable::autoresponder, ChangedTable::attachments,
                                         ChangedTable::extra_headers};

const char handlers_in[] = "main";
const char responder_in[] = "responder";
const char staged_responder[] = "staged_responder";
const char staged_handlers[] = "staged_handlers";
const char handlers_before[] = "handlers_before";

RowKey key_of(const HandlerKey &handler)
{
    return {handler.address, "autoresponder", handler.queue.value_or(""), handler.type.value_or("")};
}

/* Adds all rows that a statement gives; returns 0 or -1. */
int append_rows(sqlite3 *db, const std::string &sql, std::string *all)
{
    SqliteQuery rows;

    if (rows.prepare(db, sql.c_str()) != 0)
        return -1;
    while (rows.next())
        *all += rows.values() + '\n';
    return rows.failed() ? -1 : 0;
}

/* What a store's tables, indices, triggers and views are, but for what ANALYZE keeps, and its version;
   nothing when it cannot be asked. */
std::optional<std::string> schema_of(sqlite3 *db, const std::string &schema)
{
    std::string all;

    if (append_rows(db,
                    "SELECT type, name, tbl_name, sql FROM " + schema +
                        ".sqlite_schema WHERE name NOT LIKE 'sqlite\\_stat%' ESCAPE '\\' ORDER BY 1, 2, 3",
                    &all) != 0 ||
        append_rows(db, "PRAGMA " + schema + ".user_version", &all) != 0)
        return std::nullopt;
    return all;
}

} // namespace

/* Who hears what compare finds. */
struct CompareSink {
    const std::function<void(const Change &)> &each;
    ChangeCounts *counts;
};

/* The open stores, and what compare has found. */
class Publisher::Live
{
public:
    Live(PublishPaths paths, int wait_seconds, PublishSink sink);

    void remove_leftover() const { const FileReplacement replacement(paths_.live_responder); }
    [[nodiscard]] int copy_handlers();
    [[nodiscard]] int compare(const PublishOptions &options, const CompareSink &sink);
    [[nodiscard]] bool replaces_responder() const { return !why_replaced_.empty(); }
    [[nodiscard]] PublishResult publish();

    LiveStores stores;

private:
    [[nodiscard]] int copy_to(const std::string &from, const std::string &to);
    [[nodiscard]] int copy_responder();
    [[nodiscard]] int judge_responder();
    [[nodiscard]] int attach_staged();
    [[nodiscard]] int compare_responder(bool removes, const CompareSink &sink);
    [[nodiscard]] int compare_handlers(const std::vector<HandlerKey> &prune, const CompareSink &sink);
    void remember(ChangedTable table, const std::string &key, const RowChange &row, const CompareSink &sink);
    [[nodiscard]] bool something_to_write() const;
    [[nodiscard]] PublishResult publish_locked(FileReplacement *replacement);
    [[nodiscard]] std::optional<PublishResult> look_again();
    [[nodiscard]] int write();
    [[nodiscard]] std::vector<RowChange> &rows_of(ChangedTable table)
    {
        return rows_[static_cast<std::size_t>(table)];
    }
    [[nodiscard]] PublishResult tell_changed(const std::string &what) const;
    int tell(const std::string &what);

    PublishPaths paths_;
    std::chrono::milliseconds wait_;
    PublishSink sink_;
    SqliteConnection responder_copy_;
    std::string why_replaced_;
    bool writes_rows_ = true; /* in all tables; otherwise what differs at all is replaced whole */
    bool prunes_ = false;
    std::array<std::vector<RowChange>, changed_tables> rows_;
};

Publisher::Live::Live(PublishPaths paths, int wait_seconds, PublishSink sink)
    : stores(paths.live_handlers, paths.live_responder, std::chrono::seconds(wait_seconds), sink.trouble,
             sink.note),
      paths_(std::move(paths)), wait_(std::chrono::seconds(wait_seconds)), sink_(std::move(sink))
{
}

int Publisher::Live::tell(const std::string &what)
{
    sink_.trouble(what + ": " + stores.detail());
    return -1;
}

/* A file of another one's that lies there goes; nobody else may read the new one yet. */
int Publisher::Live::copy_to(const std::string &from, const std::string &to)
{
    sqlite3 *db = nullptr;

    (void)::unlink(to.c_str());
    (void)Fd(::open(to.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));

    int rc = sqlite3_open_v2(to.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    const SqliteConnection copy(db);

    /* SQLite is content with reading when it cannot write.  Who is killed here begins with a new copy. */
    if (rc == SQLITE_OK)
        rc = sqlite3_db_readonly(db, "main") != 0
                 ? SQLITE_READONLY
                 : sqlite3_exec(db, "PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF", nullptr, nullptr,
                                nullptr);
    if (rc != SQLITE_OK) {
        sink_.trouble(to + " cannot be made: " + sqlite3_errstr(rc));
        return -1;
    }
    return copy_database(from, wait_, db, sink_.trouble) == CopyEnding::copied ? 0 : -1;
}

int Publisher::Live::copy_handlers()
{
    if (copy_to(paths_.live_handlers, paths_.handlers_before) != 0)
        return -1;
    return copy_to(paths_.handlers_before, paths_.staged_handlers);
}

/* The live responder store is compared through a copy, so that its writers do not wait for the comparison. */
int Publisher::Live::copy_responder()
{
    std::string damage;

    responder_copy_ = open_private_database(sink_.trouble);
    if (responder_copy_ == nullptr)
        return -1;

    const CopyEnding ending = copy_database(paths_.live_responder, wait_, responder_copy_.get(),
                                            [&](const std::string &words) { damage = words; });

    if (ending != CopyEnding::copied)
        responder_copy_.reset();
    if (ending == CopyEnding::failed)
        sink_.trouble(damage);
    if (ending == CopyEnding::damaged)
        why_replaced_ = damage;
    return ending == CopyEnding::failed ? -1 : 0;
}

/* Whether the responder store can be written row by row; why not, if it cannot. */
int Publisher::Live::judge_responder()
{
    if (responder_copy_ == nullptr)
        return 0;

    const std::optional<std::string> live = schema_of(responder_copy_.get(), "main");
    const std::optional<std::string> staged = schema_of(stores.db(), staged_responder);

    if (!live || !staged)
        return tell("the tables of the responder store cannot be compared");
    if (live != staged)
        why_replaced_ = paths_.live_responder + " has other tables than a rebuild makes";
    for (const ChangedTable table : responder_tables) {
        const std::optional<bool> numbered = has_rowids({stores.db(), staged_responder}, table);

        if (!numbered)
            return tell("the tables of the responder store cannot be compared");
        writes_rows_ = writes_rows_ && *numbered;
    }
    return 0;
}

int Publisher::Live::attach_staged()
{
    return stores.attach(paths_.staged_responder, staged_responder) == 0 &&
                   stores.attach(paths_.staged_handlers, staged_handlers) == 0
               ? stores.attach(paths_.handlers_before, handlers_before)
               : -1;
}

/* A store that is replaced loses what it had too much, whether something is to be removed or not. */
int Publisher::Live::compare_responder(bool removes, const CompareSink &sink)
{
    const RowSource live = {responder_copy_.get(), "main"};
    const RowSource staged = {stores.db(), staged_responder};
    const bool removes_all = removes || replaces_responder() || !writes_rows_;

    for (const ChangedTable table : responder_tables) {
        const auto remember = [&](const std::string &key, const RowChange &row) {
            if (row.kind != ChangeKind::removed || removes_all)
                this->remember(table, key, row, sink);
        };

        if (compare_table(table, live, staged, {}, remember, sink_.trouble) != 0)
            return -1;
        if (!writes_rows_ && !replaces_responder() && !rows_of(table).empty())
            why_replaced_ = paths_.live_responder + " differs and has a table without row numbers";
    }
    responder_copy_.reset();
    if (replaces_responder())
        sink_.note(why_replaced_ + ": it is replaced whole");
    return 0;
}

int Publisher::Live::compare_handlers(const std::vector<HandlerKey> &prune, const CompareSink &sink)
{
    std::set<RowKey> unwanted;

    prunes_ = !prune.empty();
    for (const HandlerKey &handler : prune)
        unwanted.insert(key_of(handler));
    return compare_table(
        ChangedTable::handlers, {stores.db(), handlers_before}, {stores.db(), staged_handlers}, unwanted,
        [&](const std::string &key, const RowChange &row) {
            remember(ChangedTable::handlers, key, row, sink);
        },
        sink_.trouble);
}

void Publisher::Live::remember(ChangedTable table, const std::string &key, const RowChange &row,
                               const CompareSink &sink)
{
    rows_of(table).push_back(row);
    sink.counts->add(row.kind, table);
    if (sink.each)
        sink.each({row.kind, table, key});
}

int Publisher::Live::compare(const PublishOptions &options, const CompareSink &sink)
{
    const std::string &flaw = stores.responder_flaw();

    *sink.counts = {};
    rows_ = {};
    writes_rows_ = true;
    why_replaced_ = flaw.empty() ? "" : paths_.live_responder + ' ' + flaw;
    responder_copy_.reset();
    if (attach_staged() != 0 || (flaw.empty() && copy_responder() != 0) || judge_responder() != 0 ||
        compare_responder(options.removes, sink) != 0)
        return -1;
    return compare_handlers(options.prune, sink);
}

bool Publisher::Live::something_to_write() const
{
    bool something = replaces_responder();

    for (const std::vector<RowChange> &rows : rows_)
        something = something || !rows.empty();
    return something;
}

PublishResult Publisher::Live::publish()
{
    FileReplacement replacement(paths_.live_responder);

    if (!something_to_write())
        return PublishResult::published;
    if (replaces_responder() && replacement.prepare(paths_.staged_responder, sink_.trouble) != 0)
        return PublishResult::failed;
    if (stores.lock() != 0)
        return PublishResult::failed;
    if (sink_.locked)
        sink_.locked();

    const PublishResult result = publish_locked(&replacement);

    stores.roll_back();
    return result != PublishResult::published && replacement.is_installed() ? PublishResult::responder_only
                                                                            : result;
}

/* The file is given its name when nothing but the commit of the handlers can fail any more, and before it: a
   handler without a reply would be run in vain, a reply without a handler waits.  No lock can be had on a
   store that is missing or no database: whether somebody has made one is asked once more. */
PublishResult Publisher::Live::publish_locked(FileReplacement *replacement)
{
    if (const std::optional<PublishResult> looked = look_again())
        return *looked;
    if (write() != 0)
        return PublishResult::failed;
    if (replaces_responder() && stores.responder_changed() == true)
        return tell_changed(paths_.live_responder + " was changed meanwhile");
    if ((replaces_responder() && replacement->install(sink_.trouble) != 0) || stores.commit() != 0)
        return PublishResult::failed;
    return PublishResult::published;
}

PublishResult Publisher::Live::tell_changed(const std::string &what) const
{
    sink_.trouble(what);
    return PublishResult::changed_meanwhile;
}

/* Whether under the lock something is not any more as it was compared, and what comes of that.  A handler
   that was unwanted and is now wanted can be the same row, written again. */
std::optional<PublishResult> Publisher::Live::look_again()
{
    const std::optional<bool> responder_changed = stores.responder_changed();
    const std::optional<bool> handlers_changed = prunes_ ? stores.handlers_changed() : false;
    const Recheck handlers = recheck_rows(stores.db(), ChangedTable::handlers, handlers_in, handlers_before,
                                          staged_handlers, rows_of(ChangedTable::handlers));
    std::string changed;

    if (stores.handlers_replaced())
        changed = paths_.live_handlers + " was replaced meanwhile";
    else if (responder_changed == true)
        changed = paths_.live_responder + " was changed meanwhile";
    else if (handlers == Recheck::changed)
        changed = paths_.live_handlers + ": a handler that was to be written was changed meanwhile";
    else if (handlers_changed == true)
        changed = paths_.live_handlers + " was changed meanwhile";
    if (!changed.empty())
        return tell_changed(changed);
    if (responder_changed && handlers_changed && handlers == Recheck::same)
        return std::nullopt;
    (void)tell("the live stores cannot be read");
    return PublishResult::failed;
}

int Publisher::Live::write()
{
    for (const ChangedTable table : responder_tables)
        if (!replaces_responder() &&
            write_rows(stores.db(), table, responder_in, staged_responder, rows_of(table)) != 0)
            return tell(paths_.live_responder + " cannot be written");
    if (write_rows(stores.db(), ChangedTable::handlers, handlers_in, staged_handlers,
                   rows_of(ChangedTable::handlers)) != 0)
        return tell(paths_.live_handlers + " cannot be written");
    return 0;
}

Publisher::Publisher(PublishPaths paths, int wait_seconds, PublishSink sink)
    : live_(std::make_unique<Live>(std::move(paths), wait_seconds, std::move(sink)))
{
}

Publisher::~Publisher() = default;

int Publisher::open_live(bool tidies)
{
    if (tidies)
        live_->remove_leftover();
    if (live_->stores.open() != 0)
        return -1;
    if (tidies)
        live_->stores.remove_stale_lists();
    return 0;
}

int Publisher::copy_handlers()
{
    return live_->copy_handlers();
}

bool Publisher::responder_changed()
{
    return live_->stores.db() == nullptr || live_->stores.responder_changed().value_or(true);
}

int Publisher::compare(const PublishOptions &options, const std::function<void(const Change &)> &each,
                       ChangeCounts *counts)
{
    return live_->compare(options, {each, counts});
}

bool Publisher::replaces_responder() const
{
    return live_->replaces_responder();
}

PublishResult Publisher::publish()
{
    return live_->publish();
}

} // namespace kolmo
