#include "verify/panel_names.h"

#include <algorithm>

#include <sqlite3.h>

#include "verify/addresses.h"

namespace kolmo
{

namespace
{

/* What a rebuild's query for the replies of a domain has room for: ids and commas. */
constexpr unsigned long room_for_ids = 3627;

/* What the address of a mailbox may be long: at its domain, and where it is copied to an alias. */
constexpr unsigned long longest_address = 254;
constexpr unsigned long longest_alias_address = 501;

using Places = std::unordered_map<unsigned long, std::uint32_t>; /* of domains, by their id */

/* The rebuild's own query: only the same one is sure to give the domains in the same order. */
int read_domains(MYSQL *panel, PanelNames *names, Places *places)
{
    return each_row(panel,
                    "SELECT d.id, d.name FROM domains d  LEFT JOIN DomainServices ds ON d.id=ds.dom_id  "
                    "WHERE ds.type='mail'",
                    [&](const PanelRows &row) {
                        const auto place = static_cast<std::uint32_t>(names->domains.size());

                        if (places->emplace(row.number(0), place).second)
                            names->domains.push_back({row.number(0), std::string(row.text(1))});
                    });
}

int read_aliases(MYSQL *panel, const Places &places, PanelNames *names)
{
    const int result = each_row(panel, "SELECT dom_id, name FROM domain_aliases", [&](const PanelRows &row) {
        const auto place = places.find(row.number(0));

        if (place != places.end())
            names->aliases.push_back({place->second, std::string(row.text(1))});
    });

    std::stable_sort(names->aliases.begin(), names->aliases.end(),
                     [](const PanelAlias &a, const PanelAlias &b) { return a.domain < b.domain; });
    for (std::size_t i = names->aliases.size(); i-- > 0;) {
        PanelDomain &domain = names->domains[names->aliases[i].domain];

        domain.first_alias = static_cast<std::uint32_t>(i);
        domain.aliases++;
    }
    return result;
}

/* The sums of a domain's mailboxes that answer. */
struct MailboxSums {
    unsigned long count;
    unsigned long names_length;
    unsigned long ids_length;
    unsigned long longest_name;
    unsigned long odd_names;
};

bool has_too_long_address(const PanelNames &names, const PanelDomain &domain, const MailboxSums &sums)
{
    const std::string ascii = handler_domain(domain.name);

    if (sums.longest_name + 1 + ascii.size() > longest_address)
        return true;
    return std::any_of(names.aliases_of(domain).begin(), names.aliases_of(domain).end(),
                       [&](const PanelAlias &alias) {
                           return sums.longest_name + 1 + alias.name.size() > longest_alias_address;
                       });
}

void judge_sums(const PanelServer &server, const PanelNames &names, const MailboxSums &sums,
                PanelDomain *domain)
{
    const unsigned long commas = sums.count - 1;
    const unsigned long ids = sums.ids_length + commas;

    domain->mailboxes = static_cast<std::uint32_t>(sums.count);
    domain->list_is_odd =
        sums.odd_names > 0 || sums.names_length + commas > server.list_limit || ids > server.list_limit;
    if (handler_domain(domain->name).empty())
        domain->ends_walk = &code_name_not_convertible;
    else if (has_too_long_address(names, *domain, sums))
        domain->ends_walk = &code_address_too_long;
    else if (std::min(ids, server.list_limit) > room_for_ids)
        domain->ends_walk = &code_too_many_mailboxes;
}

int read_sums(MYSQL *panel, const PanelServer &server, const Places &places, PanelNames *names)
{
    return each_row(
        panel,
        "SELECT dom_id, COUNT(*), SUM(OCTET_LENGTH(mail_name)), SUM(OCTET_LENGTH(id)), "
        "MAX(OCTET_LENGTH(mail_name)), SUM(mail_name IS NULL OR mail_name='' OR mail_name LIKE '%,%') "
        "+ COUNT(*) - COUNT(DISTINCT BINARY LOWER(mail_name)) "
        "FROM mail WHERE autoresponder='true' GROUP BY dom_id",
        [&](const PanelRows &row) {
            const auto place = places.find(row.number(0));

            if (place != places.end())
                judge_sums(server, *names,
                           {row.number(1), row.number(2), row.number(3), row.number(4), row.number(5)},
                           &names->domains[place->second]);
        });
}

int read_odd_mailboxes(MYSQL *panel, const Places &places, PanelNames *names, OddMailboxes *odd)
{
    return each_row(
        panel,
        "SELECT m.dom_id, m.id, COUNT(r.id) FROM mail m LEFT JOIN mail_resp r ON r.mn_id=m.id AND "
        "r.resp_name='default' WHERE m.autoresponder='true' GROUP BY m.id, m.dom_id "
        "HAVING COUNT(r.id)<>1",
        [&](const PanelRows &row) {
            const auto place = places.find(row.number(0));

            if (place == places.end())
                return;
            odd->insert(row.number(1));

            PanelDomain &domain = names->domains[place->second];

            if (row.number(2) == 0 && domain.ends_walk == nullptr)
                domain.ends_walk = &code_no_default_reply;
        });
}

bool is_pattern(std::string_view text)
{
    return text.find_first_of("%_") != std::string_view::npos;
}

} // namespace

int read_panel_names(MYSQL *panel, const PanelServer &server, PanelNames *names, OddMailboxes *odd)
{
    Places places;

    if (read_domains(panel, names, &places) != 0 || read_aliases(panel, places, names) != 0 ||
        read_sums(panel, server, places, names) != 0)
        return -1;
    return read_odd_mailboxes(panel, places, names, odd);
}

std::vector<std::string> select_domains(const std::vector<std::string> &list, PanelNames *names)
{
    std::set<std::string> wanted;
    std::vector<std::string> unknown;
    const auto spelt = [](const std::string &name) {
        const std::string ascii = handler_domain(name);

        return !ascii.empty() ? ascii : ascii_lower(name);
    };

    for (const std::string &name : list)
        wanted.insert(spelt(name));

    std::set<std::string> missing = wanted;

    for (PanelDomain &domain : names->domains) {
        const std::string name = spelt(domain.name);

        domain.selected = wanted.contains(name);
        missing.erase(name);
    }
    for (const std::string &name : list) {
        if (missing.contains(spelt(name)))
            unknown.push_back(name);
    }
    return unknown;
}

void each_spelling(const PanelNames &names, const PanelDomain &domain,
                   const std::function<void(const std::string &)> &body)
{
    const auto both = [&](const std::string &name) {
        const std::string lower = ascii_lower(name);
        const std::string ascii = handler_domain(name);

        body(lower);
        if (!ascii.empty() && ascii != lower)
            body(ascii);
    };

    both(domain.name);
    for (const PanelAlias &alias : names.aliases_of(domain))
        both(alias.name);
}

OverlapFinder::OverlapFinder(const PanelNames &names)
{
    for (std::uint32_t i = 0; i < names.domains.size(); i++) {
        const PanelDomain &domain = names.domains[i];

        if (domain.aliases == 0 || domain.name.empty())
            continue;
        if (is_pattern(domain.name)) {
            patterns_.emplace_back('%' + domain.name + '%', i);
        } else {
            plain_.emplace(ascii_lower(domain.name), i);
            lengths_.insert(domain.name.size());
        }
    }
}

std::set<std::uint32_t> OverlapFinder::domains_in(std::string_view text, std::uint32_t except) const
{
    std::set<std::uint32_t> found;
    const std::string lower = ascii_lower(text);

    for (const std::size_t length : lengths_) {
        for (std::size_t start = 0; start + length <= lower.size(); start++) {
            const auto [first, last] = plain_.equal_range(lower.substr(start, length));

            for (auto name = first; name != last; ++name)
                found.insert(name->second);
        }
    }
    for (const auto &[pattern, place] : patterns_) {
        if (sqlite3_strlike(pattern.c_str(), lower.c_str(), 0) == 0)
            found.insert(place);
    }
    found.erase(except);
    return found;
}

} // namespace kolmo
