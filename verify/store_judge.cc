#include "verify/store_judge.h"

#include <algorithm>

#include "verify/addresses.h"

namespace kolmo
{

namespace
{

/* In the order of the responder store's table, behind mn. */
const char *const column_names[reply_columns] = {"keystr",     "key_where",    "subject",   "reply_to",
                                                 "forward_to", "content_type", "charset",   "body",
                                                 "ans_freq",   "ans_limit",    "real_owner"};
const char all_columns[] = "keystr, key_where, subject, reply_to, forward_to, content_type, charset, body, "
                           "ans_freq, ans_limit, real_owner";
constexpr std::size_t forward_column = 4;

struct HandlerColumn {
    const char *name;
    const char *wanted;
};

/* Behind address, of every autoresponder handler; queue and type belong to the key. */
const HandlerColumn handler_columns[] = {
    {"queue", "2"},
    {"type", "1"},
    {"enabled", "1"},
    {"priority", "90"},
    {"executable", "/opt/qsx/handlers/hooks/autoresponder"},
    {"context", "responder"},
    {"protected", "0"},
};
constexpr int queue_column = 0;
constexpr int type_column = 1;
constexpr int enabled_column = 2;

std::string shown(std::optional<std::string_view> text)
{
    return std::string(text.value_or("NULL"));
}

/* A text, or a blob, as an SQL literal that a shell leaves alone within double quotes. */
std::string sql_literal(std::string_view text, bool is_blob = false)
{
    static const char plain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789@._+-";
    std::string hex;

    if (!is_blob && text.find_first_not_of(plain) == std::string_view::npos)
        return '\'' + std::string(text) + '\'';
    for (const char c : text) {
        hex += "0123456789abcdef"[(c >> 4) & 15];
        hex += "0123456789abcdef"[c & 15];
    }
    return is_blob ? "x'" + hex + '\'' : "CAST(x'" + hex + "' AS TEXT)";
}

/* A number as it is. */
std::string sql_literal_of(std::optional<std::string_view> value)
{
    if (!value)
        return "NULL";
    if (!value->empty() && value->find_first_not_of("0123456789") == std::string_view::npos)
        return std::string(*value);
    return sql_literal(*value);
}

/* What is wrong with a store whose tables were not found in its copy, or could not be given an index there.
 */
std::string open_failure(const std::string &path, const char *kind, sqlite3 *copy)
{
    if (sqlite3_errcode(copy) == SQLITE_FULL)
        return no_space_for_copy;
    return path + " is no " + kind + " store: " + sqlite3_errmsg(copy);
}

} // namespace

void StoreJudge::open_responders(const std::string &path, SqliteConnection copy)
{
    responder_path_ = path;
    if (copy != nullptr &&
        (replies_.open(copy.get(), "autoresponder", "mn", all_columns, nullptr, nullptr) != 0 ||
         attachments_.open(copy.get(), "attachments", "mn", "filename", "filename", nullptr) != 0 ||
         headers_.open(copy.get(), "extra_headers", "name", "value", "value", nullptr) != 0)) {
        report_.trouble(open_failure(path, "responder", copy.get()));
        copy.reset();
    }
    responders_ = std::move(copy);
}

void StoreJudge::open_handlers(const std::string &path, SqliteConnection copy)
{
    handlers_path_ = path;
    if (copy != nullptr &&
        handler_rows_.open(copy.get(), "handlers", "address",
                           "queue, type, enabled, priority, executable, context, protected",
                           "queue, type, typeof(address)", "name = 'autoresponder'") != 0) {
        report_.trouble(open_failure(path, "handlers", copy.get()));
        copy.reset();
    }
    handlers_ = std::move(copy);
}

/* Whether the table could not be read: that is told, and its store is not judged any further. */
bool StoreJudge::unreadable(const KeyedTable &table, const std::string &path, SqliteConnection *copy)
{
    if (!table.failed())
        return false;
    report_.trouble("the private copy of " + path + " cannot be read: " + sqlite3_errmsg(copy->get()));
    copy->reset();
    return true;
}

void StoreJudge::judge(const PanelDomain &domain, const Target &target, const WantedMailbox &mailbox)
{
    if (responders_ != nullptr && mailbox.has_reply)
        judge_reply(domain, target, mailbox);
    if (handlers_ != nullptr && !target.handler_domain.empty())
        judge_handler(domain, target, mailbox);
}

void StoreJudge::judge_reply(const PanelDomain &domain, const Target &target, const WantedMailbox &mailbox)
{
    const std::string address = mailbox.local + '@' + target.reply_domain;
    const FindingCode *const limit = first_of(mailbox.limits.reply, target.limits.reply);

    replies_.ask(address);

    bool has_reply = false;

    /* A store without a unique key has each row again for each alias that was copied to. */
    for (; replies_.next(); has_reply = true) {
        replies_.keep();
        if (mailbox.is_certain)
            judge_columns(domain, target, mailbox, address);
    }
    if (unreadable(replies_, responder_path_, &responders_))
        return;
    if (!has_reply)
        report_.find({.code = target.is_alias ? &code_alias_reply_missing : &code_reply_missing,
                      .limit = limit,
                      .place = Place::responder,
                      .domain = domain.name,
                      .address = address});
    judge_attachments(domain, mailbox, address, limit);
}

void StoreJudge::judge_columns(const PanelDomain &domain, const Target &target, const WantedMailbox &mailbox,
                               const std::string &address)
{
    for (std::size_t i = 0; i < reply_columns; i++) {
        const std::optional<std::string_view> found = replies_.text(static_cast<int>(i));
        const std::string_view wanted = mailbox.columns[i];

        if (found == wanted)
            continue;
        if (i == forward_column && found &&
            std::find(mailbox.forwards.begin(), mailbox.forwards.end(), *found) != mailbox.forwards.end())
            continue;

        const FindingCode *const lost =
            mailbox.loses_texts && is_beyond_utf8mb3(wanted) ? &code_text_beyond_utf8mb3 : nullptr;

        report_.find({.code = &code_reply_differs,
                      .limit = first_of(first_of(mailbox.limits.reply, target.limits.reply), lost),
                      .place = Place::responder,
                      .domain = domain.name,
                      .address = address,
                      .column = column_names[i],
                      .expected = std::string(wanted),
                      .found = shown(found)});
    }
}

void StoreJudge::judge_attachments(const PanelDomain &domain, const WantedMailbox &mailbox,
                                   const std::string &address, const FindingCode *limit)
{
    std::vector<bool> seen(mailbox.attachments.size());

    if (mailbox.attachments.empty() && attachments_.is_empty())
        return;
    attachments_.ask(address);
    while (attachments_.next()) {
        const auto wanted =
            std::find(mailbox.attachments.begin(), mailbox.attachments.end(), attachments_.text(0));
        const auto place = static_cast<std::size_t>(wanted - mailbox.attachments.begin());
        const bool is_surplus = mailbox.is_certain && place == seen.size();

        /* Without a limit it is left, and found with what else nobody asked for. */
        if (!is_surplus || limit != nullptr)
            attachments_.keep();
        if (is_surplus && limit != nullptr)
            report_.find({.code = &code_attachment_stale,
                          .limit = limit,
                          .place = Place::responder,
                          .domain = domain.name,
                          .address = address,
                          .found = shown(attachments_.text(0))});
        if (place < seen.size())
            seen[place] = true;
    }
    if (unreadable(attachments_, responder_path_, &responders_))
        return;
    for (std::size_t i = 0; i < seen.size() && mailbox.is_certain; i++) {
        const std::string &name = mailbox.attachments[i];
        const FindingCode *const lost =
            mailbox.loses_texts && is_beyond_utf8mb3(name) ? &code_text_beyond_utf8mb3 : nullptr;

        if (!seen[i])
            report_.find({.code = &code_attachment_missing,
                          .limit = first_of(limit, lost),
                          .place = Place::responder,
                          .domain = domain.name,
                          .address = address,
                          .expected = name});
    }
}

/* Rows of another queue or type are not this handler: they are left, and found to be too much. */
void StoreJudge::judge_handler(const PanelDomain &domain, const Target &target, const WantedMailbox &mailbox)
{
    const std::string address = mailbox.local + '@' + target.handler_domain;
    const FindingCode *const limit = first_of(mailbox.limits.handler, target.limits.handler);
    bool has_handler = false;

    handler_rows_.ask(address);
    while (handler_rows_.next()) {
        if (handler_rows_.text(queue_column) == handler_columns[queue_column].wanted &&
            handler_rows_.text(type_column) == handler_columns[type_column].wanted) {
            has_handler = true;
            handler_rows_.keep();
            judge_handler_row(domain, target, mailbox, limit);
        }
    }
    if (unreadable(handler_rows_, handlers_path_, &handlers_))
        return;
    if (!has_handler)
        report_.find({.code = target.is_alias ? &code_alias_handler_missing : &code_handler_missing,
                      .limit = limit,
                      .place = Place::handlers,
                      .domain = domain.name,
                      .address = address});
}

void StoreJudge::judge_handler_row(const PanelDomain &domain, const Target &target,
                                   const WantedMailbox &mailbox, const FindingCode *limit)
{
    for (int i = enabled_column; i < static_cast<int>(std::size(handler_columns)); i++) {
        const HandlerColumn &column = handler_columns[i];
        const std::optional<std::string_view> found = handler_rows_.text(i);

        if (found == column.wanted)
            continue;

        Finding finding{.code = i == enabled_column ? &code_handler_disabled : &code_handler_differs,
                        .limit = limit,
                        .place = Place::handlers,
                        .domain = domain.name,
                        .address = mailbox.local + '@' + target.handler_domain,
                        .column = column.name,
                        .expected = column.wanted,
                        .found = shown(found)};

        if (target.is_alias && limit == nullptr)
            postponed_.push_back({std::move(finding), rivals_of(domain, mailbox.local)});
        else
            report_.find(std::move(finding));
    }
}

/* Those that are not as a rebuild makes them, without what is never copied. */
std::vector<std::int64_t> StoreJudge::rivals_of(const PanelDomain &domain, const std::string &local)
{
    std::vector<std::int64_t> rivals;

    if (rivals_domain_ != &domain) {
        SqliteQuery rows;

        rivals_domain_ = &domain;
        rivals_.clear();
        if (rows.prepare(
                handlers_.get(),
                "SELECT rowid, address FROM handlers WHERE name = 'autoresponder' AND queue = 2 AND "
                "type = 1 AND (enabled IS NOT 1 OR priority IS NOT 90 OR context IS NOT 'responder' OR "
                "executable IS NOT '/opt/qsx/handlers/hooks/autoresponder') AND address LIKE '%' || ?1 "
                "|| '%'") != 0)
            return {};
        rows.ask(domain.name);
        while (rows.next()) {
            const std::string_view address = rows.text(1).value_or("");

            rivals_.emplace(ascii_lower(address.substr(0, address.find('@'))), rows.number(0));
        }
    }
    for (auto [row, end] = rivals_.equal_range(local); row != end; ++row)
        rivals.push_back(row->second);
    return rivals;
}

void StoreJudge::report_postponed()
{
    for (Postponed &postponed : postponed_) {
        const bool is_spoilt = std::any_of(postponed.rivals.begin(), postponed.rivals.end(),
                                           [&](std::int64_t row) { return !handler_rows_.is_kept(row); });

        if (is_spoilt)
            postponed.finding.limit = &code_handler_stale;
        report_.find(std::move(postponed.finding));
    }
    postponed_.clear();
}

void StoreJudge::judge_headers(std::span<const char *const> names, std::span<const char *const> values,
                               bool loses_texts, const FindingCode *limit)
{
    for (std::size_t i = 0; i < names.size() && responders_ != nullptr; i++) {
        const std::string_view name = names[i];
        const bool is_last = std::none_of(names.begin() + static_cast<std::ptrdiff_t>(i) + 1, names.end(),
                                          [&](const char *later) { return name == later; });

        if (is_last)
            judge_header(name, values[i], loses_texts, limit);
    }
}

/* A store whose names need not be different keeps all of one name; the last must be among them. */
void StoreJudge::judge_header(std::string_view name, std::string_view value, bool loses_texts,
                              const FindingCode *limit)
{
    std::optional<std::string> found;
    const FindingCode *const lost = loses_texts && (is_beyond_utf8mb3(name) || is_beyond_utf8mb3(value))
                                        ? &code_text_beyond_utf8mb3
                                        : nullptr;

    headers_.ask(name);
    while (headers_.next()) {
        headers_.keep();
        if (found != value)
            found = shown(headers_.text(0));
    }
    if (unreadable(headers_, responder_path_, &responders_))
        return;
    if (!found)
        report_.find({.code = &code_header_missing,
                      .limit = first_of(limit, lost),
                      .place = Place::responder,
                      .address = std::string(name),
                      .expected = std::string(value)});
    else if (found != value)
        report_.find({.code = &code_header_differs,
                      .limit = first_of(limit, lost),
                      .place = Place::responder,
                      .address = std::string(name),
                      .column = "value",
                      .expected = std::string(value),
                      .found = found});
}

void StoreJudge::judge_rest(const PanelLimits &limits, const DomainFinder &domain_of_name, bool all_domains,
                            const FindingCode *end)
{
    const auto fill = [&](std::string_view address, Finding finding) {
        const PanelDomain *const domain = domain_of_name(domain_of(address));

        if (domain == nullptr && !all_domains)
            return;
        finding.domain = domain != nullptr ? domain->name : std::string(domain_of(address));
        finding.address = address;
        report_.find(std::move(finding));
    };
    const auto junk_or_end = [&](std::string_view address) {
        return first_of(limits.of_junk(address), end);
    };

    report_postponed();
    if (responders_ != nullptr) {
        replies_.each_left([&](std::string_view address, const SqliteQuery &) {
            fill(address,
                 {.code = &code_reply_stale, .limit = junk_or_end(address), .place = Place::responder});
        });
        unreadable(replies_, responder_path_, &responders_);
    }
    if (responders_ != nullptr) {
        attachments_.each_left([&](std::string_view address, const SqliteQuery &row) {
            fill(address, {.code = &code_attachment_stale,
                           .limit = junk_or_end(address),
                           .place = Place::responder,
                           .found = shown(row.text(2))});
        });
        unreadable(attachments_, responder_path_, &responders_);
    }
    if (handlers_ != nullptr) {
        handler_rows_.each_left([&](std::string_view address, const SqliteQuery &row) {
            const HandlerKind handler = {std::optional<std::string>(row.text(2)),
                                         std::optional<std::string>(row.text(3)), row.text(4) == "blob"};
            Finding finding{.code = &code_handler_stale,
                            .limit = limits.of_junk(address),
                            .place = Place::handlers,
                            .handler = handler};

            for (int i = type_column; i >= queue_column; i--) {
                if (row.text(i + 2) != handler_columns[i].wanted) {
                    finding.column = handler_columns[i].name;
                    finding.expected = handler_columns[i].wanted;
                    finding.found = shown(row.text(i + 2));
                }
            }
            if (finding.limit == nullptr)
                finding.command = "sqlite3 " + handlers_path_ +
                                  " \"DELETE FROM handlers WHERE name = 'autoresponder' AND queue IS " +
                                  sql_literal_of(row.text(2)) + " AND type IS " +
                                  sql_literal_of(row.text(3)) +
                                  " AND address = " + sql_literal(address, handler.has_blob) + '"';
            fill(address, std::move(finding));
        });
        unreadable(handler_rows_, handlers_path_, &handlers_);
    }
}

void StoreJudge::judge_rest_of_headers(const FindingCode *limit)
{
    if (responders_ == nullptr)
        return;
    headers_.each_left([&](std::string_view name, const SqliteQuery &row) {
        report_.find({.code = &code_header_stale,
                      .limit = limit,
                      .place = Place::responder,
                      .address = std::string(name),
                      .found = shown(row.text(2))});
    });
    unreadable(headers_, responder_path_, &responders_);
}

} // namespace kolmo
