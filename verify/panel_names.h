/*
 * panel_names: the domains with mail service and their aliases, and what their names alone give away of what
 * a rebuild will do to them.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "verify/finding.h"
#include "verify/panel_rows.h"

namespace kolmo
{

struct PanelAlias {
    std::uint32_t domain; /* its place among the domains */
    std::string name;     /* as the panel spells it */
};

struct PanelDomain {
    unsigned long id;
    std::string name;
    std::uint32_t mailboxes = 0; /* that answer */
    std::uint32_t first_alias = 0;
    std::uint32_t aliases = 0;
    bool selected = true;                   /* is to be told of; all are judged, as they meet in the stores */
    bool list_is_odd = false;               /* its list of mailboxes deserves a closer look */
    const FindingCode *ends_walk = nullptr; /* why a rebuild fails at it */
};

struct PanelNames {
    std::vector<PanelDomain> domains; /* in the order of a rebuild's walk */
    std::vector<PanelAlias> aliases;  /* in the order of their domains */

    [[nodiscard]] std::span<const PanelAlias> aliases_of(const PanelDomain &domain) const
    {
        return {aliases.data() + domain.first_alias, domain.aliases};
    }
};

/* The ids of mailboxes that answer and have not exactly one default reply. */
using OddMailboxes = std::set<unsigned long>;

/*
 * Reads the names, how many mailboxes of each domain answer, and which of these have no default reply or
 * several; sets ends_walk and list_is_odd.
 *
 * Returns 0, or -1: mysql_error says why.
 */
[[nodiscard]] int read_panel_names(MYSQL *panel, const PanelServer &server, PanelNames *names,
                                   OddMailboxes *odd);

/*
 * Leaves selected only the domains of the list, given in either form and in any case.
 * Returns the names that no domain with mail service has.
 */
[[nodiscard]] std::vector<std::string> select_domains(const std::vector<std::string> &list,
                                                      PanelNames *names);

/* Calls body with every name under which a domain's mailboxes have addresses, as the stores spell it. */
void each_spelling(const PanelNames &names, const PanelDomain &domain,
                   const std::function<void(const std::string &)> &body);

/* Which names of domains stand in other addresses. */
class OverlapFinder
{
public:
    /* Only domains with aliases take anything over.  The names must outlive this object. */
    explicit OverlapFinder(const PanelNames &names);

    /* The domains whose name stands in the text as SQLite's LIKE takes it, without one that is excepted. */
    [[nodiscard]] std::set<std::uint32_t> domains_in(std::string_view text, std::uint32_t except) const;

    /* Whether one of them can match across the @ of an address. */
    [[nodiscard]] bool has_patterns() const { return !patterns_.empty(); }

private:
    std::unordered_multimap<std::string, std::uint32_t> plain_; /* in lower case */
    std::vector<std::pair<std::string, std::uint32_t>> patterns_;
    std::set<std::size_t> lengths_;
};

} // namespace kolmo
