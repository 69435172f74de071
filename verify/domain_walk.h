/*
 * domain_walk: the panel's domains one after the other, with all that their mailboxes should have.
 */
#pragma once

#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "verify/panel_limits.h"
#include "verify/store_judge.h"

namespace kolmo
{

class DomainWalk
{
public:
    DomainWalk(MYSQL *panel, const PanelServer &server, const PanelNames &names, const OddMailboxes &odd,
               PanelLimits *limits, StoreJudge *judge, const Report &report)
        : panel_(panel), server_(server), names_(names), odd_(odd), limits_(*limits), judge_(*judge),
          report_(report)
    {
    }

    /* Judges each domain and counts those that are to be told of.  Returns 0, or -1: mysql_error says why. */
    [[nodiscard]] int run();

private:
    using Texts = std::unordered_map<unsigned long, std::vector<std::string>>; /* by mail_resp's id */

    int walk_batch(std::span<const std::uint32_t> places);
    /* Each text of a reply once, however often the panel has it: one row in the store is enough. */
    int read_texts(const std::string &domain_ids, const char *table, const char *column, Texts *texts);
    void enter_domain(std::uint32_t place);
    void judge_names(std::uint32_t place);
    void add_alias(std::uint32_t place, const PanelAlias &alias);
    void expect_repeated(const WantedMailbox &mailbox);
    void judge_mailbox(const PanelRows &row);
    void judge_name(const PanelRows &row, const std::string &address, WantedMailbox *mailbox);
    void judge_texts(const WantedMailbox &mailbox, const std::string &address);
    void find_in_panel(const FindingCode &code, const std::string &address, const std::string &column = "",
                       std::optional<std::string> found = std::nullopt);

    MYSQL *panel_;
    const PanelServer &server_;
    const PanelNames &names_;
    const OddMailboxes &odd_;
    PanelLimits &limits_;
    StoreJudge &judge_;
    const Report &report_;
    unsigned long all_mailboxes_ = 0;
    unsigned long judged_mailboxes_ = 0;
    std::uint32_t place_ = 0; /* of the domain at hand */
    const PanelDomain *domain_ = nullptr;
    std::vector<Target> targets_; /* its own name, then its aliases */
    std::optional<unsigned long> last_mailbox_;
    Texts forwards_; /* of the batch at hand */
    Texts attachments_;
};

} // namespace kolmo
