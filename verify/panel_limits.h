/*
 * panel_limits: which mailboxes, domains and aliases a rebuild of this panel would not get right, and why.
 */
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "verify/panel_names.h"

namespace kolmo
{

/* What stands between a rebuild and a reply, or a handler; null where nothing does. */
struct Limits {
    const FindingCode *reply = nullptr;
    const FindingCode *handler = nullptr;
};

[[nodiscard]] inline const FindingCode *first_of(const FindingCode *a, const FindingCode *b)
{
    return a != nullptr ? a : b;
}

/* Limits that are known before the first mailbox is read. */
class PanelLimits
{
public:
    /*
     * Reads the lists of the domains that deserve it and looks at all names; sets ends_walk where a list
     * makes a rebuild fail.  Returns 0, or -1: mysql_error says why.
     */
    [[nodiscard]] int read(MYSQL *panel, const PanelServer &server, PanelNames *names);

    /* Why a rebuild does not get as far as this domain, or as its aliases; null when it does. */
    [[nodiscard]] const FindingCode *before_domain(std::size_t place) const;
    [[nodiscard]] const FindingCode *before_aliases(std::size_t place) const;
    [[nodiscard]] const FindingCode *before_headers() const { return before_domain(SIZE_MAX); }

    /* What the domain's list does to one of its mailboxes. */
    [[nodiscard]] Limits of_mailbox(unsigned long id) const;

    /* Whether two mailboxes of the panel have this address. */
    [[nodiscard]] bool is_twice(const std::string &address) const { return twice_.contains(address); }

    /* Why another mailbox's reply may be written over that at this address; null when none is. */
    [[nodiscard]] const FindingCode *of_reply(const std::string &address) const;

    /* Other names of domains whose addresses the domain's aliases take over. */
    [[nodiscard]] const std::vector<std::string> &overlaps(std::uint32_t place) const;

    /* Domains, other than these of overlaps(), that take over this mailbox of a domain. */
    [[nodiscard]] std::set<std::uint32_t> takers(const PanelNames &names, const std::string &local,
                                                 std::uint32_t place) const;

    /* The domains with aliases whose name stands in an address. */
    [[nodiscard]] std::set<std::uint32_t> domains_in(const std::string &address) const
    {
        return finder_->domains_in(address, UINT32_MAX);
    }

    /* What a rebuild writes too much stands at this name of a domain, or under this address. */
    void expect_junk(const std::string &name, const FindingCode *limit) { junk_.emplace(name, limit); }

    /* The limit that explains an address which the panel does not want; null for none. */
    [[nodiscard]] const FindingCode *of_junk(std::string_view address) const;

private:
    struct MailboxLists;

    int read_list(MYSQL *panel, const PanelServer &server, const PanelNames &names, PanelDomain *domain);
    void find_faults(const PanelServer &server, const PanelNames &names, const PanelDomain &domain,
                     MailboxLists *lists);
    void expect_pieces(const PanelNames &names, const PanelDomain &domain, const std::string &local,
                       const FindingCode *limit);
    void pair_lists(const PanelServer &server, const PanelNames &names, PanelDomain *domain,
                    const MailboxLists &lists);
    int read_twice(MYSQL *panel, const PanelNames &names);
    void find_overlaps(const PanelNames &names);
    void find_end(const PanelNames &names);
    void repeat_again(const PanelNames &names);
    void repeat_under(const std::string &name);

    std::size_t end_place_ = SIZE_MAX;
    const FindingCode *end_ = nullptr;
    std::unordered_map<unsigned long, Limits> mailboxes_;
    std::set<std::string> twice_;
    std::map<std::string, const FindingCode *> overwritten_; /* addresses */
    std::map<std::uint32_t, std::vector<std::string>> overlaps_;
    std::set<std::string, std::less<>> repeated_; /* names where an alias repeats the replies of others */
    std::optional<OverlapFinder> finder_;
    std::map<std::string, const FindingCode *, std::less<>> junk_;
};

} // namespace kolmo
