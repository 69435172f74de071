#include "verify/verify.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <utility>

#include "handlers_store/handlers_db.h"
#include "panel/reply_headers.h"
#include "responder_store/responder_db.h"
#include "verify/addresses.h"
#include "verify/domain_walk.h"

namespace kolmo
{

namespace
{

/* A setting longer than this arrives at a rebuild cut. */
constexpr std::size_t longest_setting = 4095;

/* What the reader of JSON passes over: a byte order mark, and blanks. */
constexpr char before_json[] = "\xef\xbb\xbf \t\r\n";

using NameIndex = std::vector<std::pair<std::size_t, std::uint32_t>>; /* a name's hash, its domain's place */

/* Leads from every spelling of a name to its domain. */
NameIndex index_names(const PanelNames &names)
{
    NameIndex index;

    for (std::uint32_t i = 0; i < names.domains.size(); i++)
        each_spelling(names, names.domains[i], [&](const std::string &name) {
            index.emplace_back(std::hash<std::string>{}(name), i);
        });
    std::sort(index.begin(), index.end());
    return index;
}

/* Of several domains of that name one that is to be told of; null when there is none. */
const PanelDomain *domain_of_name(const PanelNames &names, const NameIndex &index, std::string_view name)
{
    const std::size_t hash = std::hash<std::string>{}(ascii_lower(name));

    for (auto found = std::lower_bound(index.begin(), index.end(), std::pair(hash, std::uint32_t{0}));
         found != index.end() && found->first == hash; ++found) {
        if (names.domains[found->second].selected)
            return &names.domains[found->second];
    }
    return nullptr;
}

/* One comparison from its beginning to its end. */
class Verification
{
public:
    Verification(MYSQL *panel, const VerifyOptions &options, Report *report)
        : panel_(panel), options_(options), report_(*report), judge_(*report)
    {
    }

    void run();

private:
    void open_stores();
    int read_panel();
    int select();
    void note_engines();
    int judge_headers();
    void judge_setting(const std::string &json);

    MYSQL *panel_;
    const VerifyOptions &options_;
    Report &report_;
    StoreJudge judge_;
    PanelServer server_;
    PanelNames names_;
    OddMailboxes odd_;
    PanelLimits limits_;
};

void Verification::open_stores()
{
    const TroubleSink trouble = [&](const std::string &text) {
        report_.trouble(text);
    };
    const std::chrono::seconds wait(options_.wait_seconds);
    const std::string responders =
        options_.responder_path != nullptr ? options_.responder_path : responder_db_path;
    const std::string handlers =
        options_.handlers_path != nullptr ? options_.handlers_path : handlers_db_path;
    const auto copy = [&](const std::string &path) {
        return check_store_file(path, trouble) == 0 ? copy_store(path, wait, trouble) : nullptr;
    };

    if (options_.check_owners)
        check_owners(responders, handlers, trouble);
    judge_.open_responders(responders, copy(responders));
    judge_.open_handlers(handlers, copy(handlers));
}

/* Tables of other engines are read as they are at the moment of reading. */
void Verification::note_engines()
{
    (void)each_row(
        panel_,
        "SELECT table_name, engine FROM information_schema.tables WHERE table_schema=DATABASE() AND "
        "table_name IN ('domains', 'DomainServices', 'mail', 'mail_resp', 'resp_forward', "
        "'resp_attach', 'domain_aliases', 'ServiceNodeConfiguration') AND engine<>'InnoDB'",
        [&](const PanelRows &row) {
            report_.note("table " + std::string(row.text(0)) + " of the panel has no snapshots (" +
                         std::string(row.text(1)) + "): changes during this look may show");
        });
}

int Verification::select()
{
    if (options_.domains.empty())
        return 0;

    const std::vector<std::string> unknown = select_domains(options_.domains, &names_);

    for (const std::string &name : unknown)
        report_.trouble("the panel has no domain " + name + " with mail service");

    std::set<std::string> told;

    for (const PanelDomain &domain : names_.domains) {
        if (domain.selected)
            told.insert(domain.name);
    }
    report_.tell_only(std::move(told));
    return unknown.empty() ? 0 : -1;
}

int Verification::read_panel()
{
    if (read_panel_names(panel_, server_, &names_, &odd_) != 0 || limits_.read(panel_, server_, &names_) != 0)
        return -1;
    if (select() != 0)
        return 0; /* told already */
    open_stores();

    DomainWalk walk(panel_, server_, names_, odd_, &limits_, &judge_, report_);

    if (walk.run() != 0 || (options_.domains.empty() && judge_headers() != 0))
        return -1;

    const NameIndex index = index_names(names_);

    judge_.judge_rest(
        limits_, [&](std::string_view name) { return domain_of_name(names_, index, name); },
        options_.domains.empty(), limits_.before_headers());
    return 0;
}

int Verification::judge_headers()
{
    std::string json;
    bool has_row = false;
    const int result =
        each_row(panel_,
                 "SELECT value FROM ServiceNodeConfiguration WHERE name='auto_reply_headers' AND "
                 "serviceNodeId=1 AND section='mailServer'",
                 [&](const PanelRows &row) {
                     if (!has_row)
                         json = row.text(0);
                     has_row = true;
                 });

    if (result == 0)
        judge_setting(json);
    return result;
}

void Verification::judge_setting(const std::string &json)
{
    ReplyHeaders headers;
    char reason[512] = "";
    const FindingCode *fault = nullptr;

    if (json.size() > longest_setting)
        fault = &code_headers_too_long;
    else if (!json.empty() && read_reply_headers(json.c_str(), &headers, reason, sizeof reason) != 0)
        fault = &code_headers_not_json;
    else if (!json.empty() && json[json.find_first_not_of(before_json)] != '{')
        fault = &code_headers_not_an_object;
    if (fault != nullptr)
        report_.find({.code = fault,
                      .place = Place::panel,
                      .column = "auto_reply_headers",
                      .found = *reason != '\0' ? std::string(reason) : std::optional<std::string>()});

    const FindingCode *const end = limits_.before_headers();
    const FindingCode *const limit = end != nullptr ? end : fault;

    if (fault != nullptr)
        headers = {};

    const auto is_beyond = [](const char *text) {
        return is_beyond_utf8mb3(text);
    };
    const bool loses_name =
        server_.loses_beyond_utf8mb3 && std::any_of(headers.names.begin(), headers.names.end(), is_beyond);
    const bool loses_value =
        server_.loses_beyond_utf8mb3 && std::any_of(headers.values.begin(), headers.values.end(), is_beyond);

    if (loses_name || loses_value)
        report_.find(
            {.code = &code_text_beyond_utf8mb3, .place = Place::panel, .column = "auto_reply_headers"});
    judge_.judge_headers(headers.names, headers.values, server_.loses_beyond_utf8mb3, limit);
    judge_.judge_rest_of_headers(limit == nullptr && loses_name ? &code_text_beyond_utf8mb3 : limit);
}

void Verification::run()
{
    if (begin_panel_snapshot(panel_, &server_) != 0) {
        report_.trouble(std::string("the panel database gives no snapshot: ") + mysql_error(panel_));
        return;
    }

    const std::unique_ptr<MYSQL, decltype(&end_panel_snapshot)> snapshot(panel_, end_panel_snapshot);

    note_engines();
    if (read_panel() != 0)
        report_.trouble(std::string("the panel database cannot be read: ") + mysql_error(panel_));
}

} // namespace

int verify_stores(MYSQL *panel, const VerifyOptions &options, const VerifySink &sink, VerifySummary *summary)
{
    *summary = {};

    Report report(sink, summary);

    try {
        Verification(panel, options, &report).run();
    } catch (const std::bad_alloc &) {
        report.trouble("there is no memory left");
    }
    if (summary->troubles > 0)
        return 2;
    return summary->findings() > 0 ? 1 : 0;
}

} // namespace kolmo
