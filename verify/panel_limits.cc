#include "verify/panel_limits.h"

#include <algorithm>

#include "verify/addresses.h"

namespace kolmo
{

namespace
{

/* Each alias that begins with its domain's name doubles them: a rebuild of many such does not end, this does.
 */
constexpr std::size_t most_repeated = 10000;

/* A mailbox in the order in which the server lists its domain's. */
struct ListedMailbox {
    unsigned long id;
    std::string id_text;
    std::string name;
};

int read_mailboxes(MYSQL *panel, unsigned long domain_id, std::vector<ListedMailbox> *list)
{
    /* Without an order, like the rebuild: the server will hardly choose another one. */
    return each_row(panel,
                    "SELECT id, mail_name FROM mail WHERE dom_id=" + std::to_string(domain_id) +
                        " AND autoresponder='true'",
                    [&](const PanelRows &row) {
                        list->push_back({row.number(0), std::string(row.text(0)), std::string(row.text(1))});
                    });
}

const FindingCode *fault_of_name(const std::string &name)
{
    if (name.empty())
        return &code_empty_name;
    return name.find(',') != std::string::npos ? &code_comma_in_name : nullptr;
}

/* The pieces of a name are the addresses that a rebuild makes of it. */
std::vector<std::string> pieces(const std::string &name, const char *delimiters)
{
    std::vector<std::string> found;
    std::size_t start = 0;

    while (true) {
        const std::size_t end = name.find_first_of(delimiters, start);

        found.push_back(name.substr(start, end - start));
        if (end == std::string::npos)
            return found;
        start = end + 1;
    }
}

/* What a rebuild makes of a list: empty items go, but for the last. */
std::vector<std::string> items(const std::string &list)
{
    std::vector<std::string> found = pieces(list, ",");

    found.erase(std::remove(found.begin(), found.end() - 1, ""), found.end() - 1);
    return found;
}

/* The server cuts between characters. */
std::string cut_list(const std::string &list, std::size_t limit)
{
    while (limit > 0 && limit < list.size() && (list[limit] & 0xc0) == 0x80)
        limit--;
    return list.substr(0, limit);
}

std::string address_of(const std::string &local, const std::string &name)
{
    std::string address = local;

    address += '@';
    return address += name;
}

} // namespace

/* A domain's mailboxes, what the server joins of them, uncut, and the first fault of these lists. */
struct PanelLimits::MailboxLists {
    std::vector<ListedMailbox> mailboxes;
    std::string names;
    std::string ids;
    const FindingCode *fault = nullptr;
};

int PanelLimits::read(MYSQL *panel, const PanelServer &server, PanelNames *names)
{
    for (PanelDomain &domain : names->domains) {
        if (domain.list_is_odd && read_list(panel, server, *names, &domain) != 0)
            return -1;
    }
    if (read_twice(panel, *names) != 0)
        return -1;
    find_overlaps(*names);
    find_end(*names);
    return 0;
}

/*
 * Names and ids are two lists that the server may cut, and are paired by position: behind a name that counts
 * as none or as several, each mailbox gets the reply of another one.
 */
int PanelLimits::read_list(MYSQL *panel, const PanelServer &server, const PanelNames &names,
                           PanelDomain *domain)
{
    MailboxLists lists;

    if (read_mailboxes(panel, domain->id, &lists.mailboxes) != 0)
        return -1;
    find_faults(server, names, *domain, &lists);
    pair_lists(server, names, domain, lists);
    return 0;
}

/* What is wrong with each mailbox's place in the lists, and joins these. */
void PanelLimits::find_faults(const PanelServer &server, const PanelNames &names, const PanelDomain &domain,
                              MailboxLists *lists)
{
    const FindingCode *shift = nullptr;
    std::set<std::string> seen;

    for (const ListedMailbox &mailbox : lists->mailboxes) {
        const FindingCode *const own = fault_of_name(mailbox.name);
        const std::string lower = ascii_lower(mailbox.name);
        const char *const comma = &mailbox != lists->mailboxes.data() ? "," : "";

        lists->names += comma + mailbox.name;
        lists->ids += comma + mailbox.id_text;

        const FindingCode *const name_cut =
            lists->names.size() > server.list_limit ? &code_list_cut : nullptr;
        const FindingCode *const id_cut = lists->ids.size() > server.list_limit ? &code_list_cut : nullptr;

        shift = first_of(shift, own);
        mailboxes_[mailbox.id] = {first_of(shift, first_of(name_cut, id_cut)), first_of(own, name_cut)};
        lists->fault = first_of(lists->fault, mailboxes_[mailbox.id].reply);
        if (!seen.insert(lower).second)
            each_spelling(names, domain,
                          [&](const std::string &name) { twice_.insert(address_of(lower, name)); });
        if (own != nullptr)
            expect_pieces(names, domain, lower, own);
        if (name_cut != nullptr)
            each_spelling(names, domain, [&](const std::string &name) { expect_junk(name, name_cut); });
    }
}

/* The handlers' names are taken apart at blanks, too. */
void PanelLimits::expect_pieces(const PanelNames &names, const PanelDomain &domain, const std::string &local,
                                const FindingCode *limit)
{
    for (const char *const delimiters : {", ", ","}) {
        for (const std::string &piece : pieces(local, delimiters))
            each_spelling(names, domain,
                          [&](const std::string &name) { expect_junk(address_of(piece, name), limit); });
    }
}

/* Who gets whose reply when the lists are cut and taken apart, and whether the walk ends there. */
void PanelLimits::pair_lists(const PanelServer &server, const PanelNames &names, PanelDomain *domain,
                             const MailboxLists &lists)
{
    const std::string cut_ids = cut_list(lists.ids, server.list_limit);
    const std::vector<std::string> local_names = items(cut_list(ascii_lower(lists.names), server.list_limit));
    const std::vector<std::string> ids = items(cut_ids);
    const bool breaks_query = cut_ids.ends_with(','); /* nothing of the domain is read then */
    std::map<std::string, std::string> replies;       /* under each name that of one id */

    for (std::size_t i = 0; i < std::min(local_names.size(), ids.size()); i++)
        replies[local_names[i]] = ids[i];
    for (const ListedMailbox &mailbox : lists.mailboxes) {
        const auto reply = replies.find(ascii_lower(mailbox.name));
        const bool is_right = reply != replies.end() && reply->second == mailbox.id_text;
        const FindingCode *&limit = mailboxes_[mailbox.id].reply;

        if (is_right)
            replies.erase(reply);
        if (breaks_query || !is_right)
            limit = first_of(limit, lists.fault);
    }
    /* What is left of a name that was cut, or of a faulty one, may be a mailbox of another domain. */
    for (const auto &reply : replies)
        each_spelling(names, *domain, [&](const std::string &name) {
            overwritten_.emplace(address_of(reply.first, name), lists.fault);
        });
    if (breaks_query || local_names.size() > ids.size())
        domain->ends_walk = first_of(domain->ends_walk, lists.fault);
}

int PanelLimits::read_twice(MYSQL *panel, const PanelNames &names)
{
    std::vector<std::pair<std::size_t, std::uint32_t>> spellings;
    std::set<std::uint32_t> suspects;
    std::map<std::string, std::set<std::uint32_t>> owners;

    for (std::uint32_t i = 0; i < names.domains.size(); i++) {
        if (names.domains[i].mailboxes > 0)
            each_spelling(names, names.domains[i], [&](const std::string &name) {
                spellings.emplace_back(std::hash<std::string>{}(name), i);
            });
    }
    std::sort(spellings.begin(), spellings.end());
    for (std::size_t i = 1; i < spellings.size(); i++) {
        if (spellings[i].first == spellings[i - 1].first && spellings[i].second != spellings[i - 1].second) {
            suspects.insert(spellings[i].second);
            suspects.insert(spellings[i - 1].second);
        }
    }
    for (const std::uint32_t place : suspects) {
        const PanelDomain &domain = names.domains[place];
        std::vector<ListedMailbox> list;

        if (read_mailboxes(panel, domain.id, &list) != 0)
            return -1;
        for (const ListedMailbox &mailbox : list)
            each_spelling(names, domain, [&](const std::string &name) {
                owners[address_of(ascii_lower(mailbox.name), name)].insert(place);
            });
    }
    for (const auto &[address, places] : owners) {
        if (places.size() > 1)
            twice_.insert(address);
    }
    return 0;
}

void PanelLimits::find_overlaps(const PanelNames &names)
{
    finder_.emplace(names);
    for (std::uint32_t i = 0; i < names.domains.size(); i++) {
        const PanelDomain &domain = names.domains[i];

        if (domain.mailboxes == 0)
            continue;
        each_spelling(names, domain, [&](const std::string &other) {
            for (const std::uint32_t taker : finder_->domains_in(other, i))
                overlaps_[taker].push_back(other);
        });
        /* Its own aliases are no strangers, but a longer one gets its replies repeated under another name. */
        for (const PanelAlias &alias : names.aliases_of(domain)) {
            if (domain.aliases > 1 && alias.name.size() > domain.name.size() &&
                alias.name.starts_with(domain.name))
                overlaps_[i].push_back(alias.name);
        }
    }
    for (const auto &[place, others] : overlaps_) {
        const PanelDomain &domain = names.domains[place];

        for (const PanelAlias &alias : names.aliases_of(domain)) {
            expect_junk(ascii_lower(alias.name), &code_alias_overlaps_domain);
            for (const std::string &other : others) {
                if (other.starts_with(domain.name))
                    repeat_under(alias.name + other.substr(domain.name.size()));
            }
        }
    }
    repeat_again(names);
}

/* What is repeated under a name stands there for the domains that a rebuild comes to later. */
void PanelLimits::repeat_again(const PanelNames &names)
{
    for (const PanelDomain &domain : names.domains) {
        for (const PanelAlias &alias : names.aliases_of(domain)) {
            std::vector<std::string> again;

            for (auto name = repeated_.lower_bound(domain.name);
                 name != repeated_.end() && name->starts_with(domain.name); ++name)
                again.push_back(alias.name + name->substr(domain.name.size()));
            if (repeated_.size() + again.size() > most_repeated)
                return;
            for (const std::string &name : again)
                repeat_under(name);
        }
    }
}

const FindingCode *PanelLimits::of_reply(const std::string &address) const
{
    const auto found = overwritten_.find(address);

    if (found != overwritten_.end())
        return found->second;
    return repeated_.contains(domain_of(address)) ? &code_alias_overlaps_domain : nullptr;
}

void PanelLimits::repeat_under(const std::string &name)
{
    repeated_.insert(name);
    expect_junk(name, &code_alias_overlaps_domain);
}

void PanelLimits::find_end(const PanelNames &names)
{
    const auto end = std::find_if(names.domains.begin(), names.domains.end(),
                                  [](const PanelDomain &domain) { return domain.ends_walk != nullptr; });

    if (end == names.domains.end())
        return;
    end_place_ = static_cast<std::size_t>(end - names.domains.begin());
    end_ = end->ends_walk;
}

const FindingCode *PanelLimits::before_domain(std::size_t place) const
{
    return place > end_place_ ? end_ : nullptr;
}

const FindingCode *PanelLimits::before_aliases(std::size_t place) const
{
    return place >= end_place_ ? end_ : nullptr;
}

Limits PanelLimits::of_mailbox(unsigned long id) const
{
    const auto found = mailboxes_.find(id);

    return found != mailboxes_.end() ? found->second : Limits{};
}

const std::vector<std::string> &PanelLimits::overlaps(std::uint32_t place) const
{
    static const std::vector<std::string> none;
    const auto found = overlaps_.find(place);

    return found != overlaps_.end() ? found->second : none;
}

std::set<std::uint32_t> PanelLimits::takers(const PanelNames &names, const std::string &local,
                                            std::uint32_t place) const
{
    std::set<std::uint32_t> found = finder_->domains_in(local, place);

    if (!finder_->has_patterns())
        return found;
    each_spelling(names, names.domains[place], [&](const std::string &name) {
        const std::set<std::uint32_t> overlapping = finder_->domains_in(name, place);

        for (const std::uint32_t taker : finder_->domains_in(address_of(local, name), place)) {
            if (!overlapping.contains(taker))
                found.insert(taker);
        }
    });
    return found;
}

const FindingCode *PanelLimits::of_junk(std::string_view address) const
{
    for (const std::string_view key : {address, domain_of(address)}) {
        const auto found = junk_.find(key);

        if (found != junk_.end())
            return found->second;
    }
    return nullptr;
}

} // namespace kolmo
