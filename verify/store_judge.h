/*
 * store_judge: what the stores have for one address, against what the panel wants there.
 */
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "verify/panel_limits.h"
#include "verify/report.h"
#include "verify/store_copy.h"
#include "verify/store_rows.h"

namespace kolmo
{

/* One name under which a domain's mailboxes have addresses: its own or an alias. */
struct Target {
    bool is_alias = false;
    std::string reply_domain = {};   /* as the responder store should spell it */
    std::string handler_domain = {}; /* as the handlers store should; empty when there is no such form */
    Limits limits = {};
};

constexpr std::size_t reply_columns = 11;

/* What the panel wants of one mailbox that answers. */
struct WantedMailbox {
    std::string local; /* in lower case */
    Limits limits;
    bool has_reply = true;   /* there is something to answer with */
    bool is_certain = true;  /* it can be said what: there are no two candidates */
    bool loses_texts = true; /* a rebuild loses characters beyond three-byte UTF-8 */
    std::array<std::string_view, reply_columns> columns;
    std::span<const std::string> forwards; /* any of them is right */
    std::span<const std::string> attachments;
};

/* Says which domain of the panel a name belongs to; null for none that is to be told of. */
using DomainFinder = std::function<const PanelDomain *(std::string_view name)>;

class StoreJudge
{
public:
    explicit StoreJudge(const Report &report) : report_(report) {}

    /* Each takes over the private copy of a store; without one that store is not judged. */
    void open_responders(const std::string &path, SqliteConnection copy);
    void open_handlers(const std::string &path, SqliteConnection copy);

    /* The reply with its attachments, and the handler, at one name of the mailbox's domain. */
    void judge(const PanelDomain &domain, const Target &target, const WantedMailbox &mailbox);

    /* Headers in document order, of which the last of a name counts; `limit` is behind all findings. */
    void judge_headers(std::span<const char *const> names, std::span<const char *const> values,
                       bool loses_texts, const FindingCode *limit);

    /* Everything in the stores that was not wanted.  `end` is behind what a rebuild would remove, if only it
       came to its end. */
    void judge_rest(const PanelLimits &limits, const DomainFinder &domain_of_name, bool all_domains,
                    const FindingCode *end);
    void judge_rest_of_headers(const FindingCode *limit);

private:
    void judge_reply(const PanelDomain &domain, const Target &target, const WantedMailbox &mailbox);
    void judge_columns(const PanelDomain &domain, const Target &target, const WantedMailbox &mailbox,
                       const std::string &address);
    void judge_attachments(const PanelDomain &domain, const WantedMailbox &mailbox,
                           const std::string &address, const FindingCode *limit);
    void judge_handler(const PanelDomain &domain, const Target &target, const WantedMailbox &mailbox);
    void judge_handler_row(const PanelDomain &domain, const Target &target, const WantedMailbox &mailbox,
                           const FindingCode *limit);
    [[nodiscard]] std::vector<std::int64_t> rivals_of(const PanelDomain &domain, const std::string &local);
    void report_postponed();
    void judge_header(std::string_view name, std::string_view value, bool loses_texts,
                      const FindingCode *limit);

    bool unreadable(const KeyedTable &table, const std::string &path, SqliteConnection *copy);

    const Report &report_;
    std::string responder_path_;
    std::string handlers_path_;
    SqliteConnection responders_;
    SqliteConnection handlers_;
    KeyedTable replies_;
    KeyedTable attachments_;
    KeyedTable headers_;
    KeyedTable handler_rows_;

    /* Handlers that a rebuild copies to the same address at a domain's aliases, by the local part. */
    const PanelDomain *rivals_domain_ = nullptr;
    std::unordered_multimap<std::string, std::int64_t> rivals_;

    /* What is wrong with an alias's handler is behind one of these if nobody asks for that. */
    struct Postponed {
        Finding finding;
        std::vector<std::int64_t> rivals;
    };
    std::vector<Postponed> postponed_;
};

} // namespace kolmo
