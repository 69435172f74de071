#include "verify/domain_walk.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "verify/addresses.h"

namespace kolmo
{

namespace
{

/* How many domains and mailboxes are asked for at a time: a query each is slow, all of them need memory for
   their attachments and forward addresses. */
constexpr std::size_t domains_of_a_batch = 256;
constexpr unsigned long mailboxes_of_a_batch = 4000;

/* Of one mailbox: aliases that begin with their domain's name double them. */
constexpr std::size_t most_repeated = 1000;

/* Columns of the query for mailboxes; the texts of a reply follow in the order of the responder store. */
enum Column : unsigned int { domain_id, mailbox_id, mail_name, reply_id, first_text };

const std::vector<std::string> none;

const std::vector<std::string> &
texts_of(const std::unordered_map<unsigned long, std::vector<std::string>> &texts, unsigned long id)
{
    const auto found = texts.find(id);

    return found != texts.end() ? found->second : none;
}

/* Whether a domain stands in a mailbox's name so that a rebuild replaces it there, too, by its aliases. */
bool has_domain(const std::string &local, const PanelDomain &domain)
{
    return local.find('@' + domain.name) != std::string::npos;
}

std::string replaced(std::string text, const std::string &what, const std::string &by)
{
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
    return text;
}

/* A number as the responder store takes it: cut to 32 bits. */
std::string stored_number(std::string_view text)
{
    return std::to_string(static_cast<std::int32_t>(std::strtol(std::string(text).c_str(), nullptr, 10)));
}

} // namespace

int DomainWalk::run()
{
    std::vector<std::uint32_t> batch;
    unsigned long mailboxes = 0;

    for (const PanelDomain &domain : names_.domains)
        all_mailboxes_ += domain.mailboxes;
    for (std::uint32_t i = 0; i < names_.domains.size(); i++) {
        batch.push_back(i);
        mailboxes += names_.domains[i].mailboxes;
        if (batch.size() < domains_of_a_batch && mailboxes < mailboxes_of_a_batch)
            continue;
        if (walk_batch(batch) != 0)
            return -1;
        batch.clear();
        mailboxes = 0;
    }
    return batch.empty() ? 0 : walk_batch(batch);
}

int DomainWalk::read_texts(const std::string &domain_ids, const char *table, const char *column, Texts *texts)
{
    texts->clear();
    return each_row(panel_,
                    std::string("SELECT t.rn_id, t.") + column +
                        " FROM mail m JOIN mail_resp r ON r.mn_id=m.id AND " + "r.resp_name='default' JOIN " +
                        table + " t ON t.rn_id=r.id WHERE m.dom_id IN (" + domain_ids +
                        ") AND m.autoresponder='true'",
                    [&](const PanelRows &row) {
                        std::vector<std::string> &of_reply = (*texts)[row.number(0)];

                        if (std::find(of_reply.begin(), of_reply.end(), row.text(1)) == of_reply.end())
                            of_reply.emplace_back(row.text(1));
                    });
}

int DomainWalk::walk_batch(std::span<const std::uint32_t> places)
{
    std::string ids;

    for (const std::uint32_t place : places)
        ids += (ids.empty() ? "" : ",") + std::to_string(names_.domains[place].id);
    if (read_texts(ids, "resp_forward", "address", &forwards_) != 0 ||
        read_texts(ids, "resp_attach", "filename", &attachments_) != 0)
        return -1;

    std::size_t next = 0;
    const auto enter_next = [&] {
        enter_domain(places[next++]);
    };
    const int result = each_row(
        panel_,
        "SELECT m.dom_id, m.id, m.mail_name, r.id, r.keystr, r.key_where, r.subject, r.reply_to, '', "
        "r.content_type, r.charset, r.text, r.ans_freq, r.mem_limit FROM mail m LEFT JOIN mail_resp r ON "
        "r.mn_id=m.id AND r.resp_name='default' WHERE m.dom_id IN (" +
            ids + ") AND m.autoresponder='true' ORDER BY FIELD(m.dom_id," + ids + "), m.id",
        [&](const PanelRows &row) {
            while (next == 0 || (domain_->id != row.number(domain_id) && next < places.size()))
                enter_next();
            judge_mailbox(row);
        });

    while (result == 0 && next < places.size())
        enter_next();
    return result;
}

void DomainWalk::find_in_panel(const FindingCode &code, const std::string &address, const std::string &column,
                               std::optional<std::string> found)
{
    report_.find({.code = &code,
                  .place = Place::panel,
                  .domain = domain_->name,
                  .address = address,
                  .column = column,
                  .found = std::move(found)});
}

void DomainWalk::enter_domain(std::uint32_t place)
{
    const FindingCode *const before = limits_.before_domain(place);

    place_ = place;
    domain_ = &names_.domains[place];
    last_mailbox_.reset();
    targets_.clear();
    if (domain_->selected) {
        report_.summary().domains++;
        report_.summary().aliases += domain_->aliases;
    }

    Target own{.reply_domain = ascii_lower(domain_->name), .handler_domain = handler_domain(domain_->name)};

    own.limits = {before, before};
    if (domain_->ends_walk == &code_too_many_mailboxes)
        own.limits.reply = domain_->ends_walk;
    if (domain_->ends_walk == &code_name_not_convertible || domain_->ends_walk == &code_address_too_long ||
        (server_.loses_beyond_utf8mb3 && is_beyond_utf8mb3(domain_->name))) {
        own.limits.reply = own.limits.handler =
            domain_->ends_walk != nullptr ? domain_->ends_walk : &code_text_beyond_utf8mb3;
    }
    targets_.push_back(own);
    judge_names(place);
    for (const PanelAlias &alias : names_.aliases_of(*domain_))
        add_alias(place, alias);
}

/* What the domain's name alone gives away. */
void DomainWalk::judge_names(std::uint32_t place)
{
    for (const std::string &other : limits_.overlaps(place)) {
        for (const PanelAlias &alias : names_.aliases_of(*domain_)) {
            if (alias.name != other)
                find_in_panel(code_alias_overlaps_domain, alias.name, "", other);
        }
    }
    if (domain_->mailboxes == 0)
        return;
    if (domain_->ends_walk == &code_name_not_convertible || domain_->ends_walk == &code_address_too_long ||
        domain_->ends_walk == &code_too_many_mailboxes)
        find_in_panel(*domain_->ends_walk, domain_->name);
    if (server_.loses_beyond_utf8mb3 && is_beyond_utf8mb3(domain_->name)) {
        find_in_panel(code_text_beyond_utf8mb3, domain_->name, "name");
        limits_.expect_junk(as_utf8mb3(ascii_lower(domain_->name)), &code_text_beyond_utf8mb3);
    }
    if (domain_->aliases > 0 && has_capitals(domain_->name))
        find_in_panel(code_domain_name_with_capitals, domain_->name);
    if (domain_->aliases > 0 && !targets_.front().handler_domain.empty() &&
        targets_.front().handler_domain != ascii_lower(domain_->name))
        find_in_panel(code_alias_of_idn_domain, domain_->name);
}

void DomainWalk::add_alias(std::uint32_t place, const PanelAlias &alias)
{
    const FindingCode *const before = limits_.before_aliases(place);
    const Target &own = targets_.front();
    const bool answers = domain_->mailboxes > 0;
    const std::string lower = ascii_lower(alias.name);
    Target target{.is_alias = true, .reply_domain = lower, .handler_domain = handler_domain(alias.name)};
    const auto limit = [&](bool applies, const FindingCode &code, const FindingCode **of) {
        if (applies && *of == nullptr)
            *of = &code;
    };
    const auto find = [&](bool applies, const FindingCode &code) {
        if (applies && answers) {
            find_in_panel(code, alias.name);
            limits_.expect_junk(alias.name, &code);
            limits_.expect_junk(lower, &code);
            limits_.expect_junk(as_utf8mb3(lower), &code);
        }
    };

    if (lower == own.reply_domain) {
        find(has_capitals(alias.name), code_alias_with_capitals);
        return; /* nothing more is wanted of an alias that is the domain itself */
    }

    const bool is_lossy = server_.loses_beyond_utf8mb3 && is_beyond_utf8mb3(alias.name);
    const bool is_idn = !target.handler_domain.empty() && target.handler_domain != lower;

    target.limits = {before, before};
    limit(is_lossy, code_text_beyond_utf8mb3, &target.limits.reply);
    limit(is_lossy, code_text_beyond_utf8mb3, &target.limits.handler);
    limit(has_capitals(domain_->name), code_domain_name_with_capitals, &target.limits.reply);
    limit(has_capitals(alias.name), code_alias_with_capitals, &target.limits.reply);
    limit(own.handler_domain != own.reply_domain, code_alias_of_idn_domain, &target.limits.handler);
    limit(is_idn, code_alias_not_ascii, &target.limits.handler);
    limit(target.handler_domain.empty(), code_name_not_convertible, &target.limits.handler);
    find(is_lossy, code_text_beyond_utf8mb3);
    find(has_capitals(alias.name), code_alias_with_capitals);
    find(is_idn, code_alias_not_ascii);
    find(target.handler_domain.empty(), code_name_not_convertible);
    targets_.push_back(std::move(target));
}

/* What a mailbox's name does to its addresses. */
void DomainWalk::judge_name(const PanelRows &row, const std::string &address, WantedMailbox *mailbox)
{
    const std::string_view name = row.text(mail_name);
    const Limits listed = limits_.of_mailbox(row.number(mailbox_id));
    const auto own_fault = [&](bool applies, const FindingCode &code, bool hits_reply) {
        if (!applies)
            return;
        find_in_panel(code, address);
        if (hits_reply && mailbox->limits.reply == nullptr)
            mailbox->limits.reply = &code;
        if (mailbox->limits.handler == nullptr)
            mailbox->limits.handler = &code;
    };
    const auto expect_junk = [&](const std::string &local, const FindingCode &code) {
        for (const Target &target : targets_) {
            limits_.expect_junk(local + '@' + target.reply_domain, &code);
            limits_.expect_junk(local + '@' + target.handler_domain, &code);
        }
    };

    mailbox->limits = listed;
    own_fault(name.empty(), code_empty_name, true);
    own_fault(name.find(',') != std::string_view::npos, code_comma_in_name, true);
    own_fault(name.find(' ') != std::string_view::npos, code_blank_in_name, false);
    if (domain_->aliases > 0)
        own_fault(name.find('@') != std::string_view::npos, code_at_in_name, false);
    own_fault(server_.loses_beyond_utf8mb3 && is_beyond_utf8mb3(name), code_text_beyond_utf8mb3, true);
    if (listed.reply == &code_list_cut || listed.handler == &code_list_cut)
        find_in_panel(code_list_cut, address);

    for (std::size_t start = 0; name.find(' ') != std::string_view::npos && start <= name.size();) {
        const std::size_t end = std::min(name.find(' ', start), name.size());

        expect_junk(ascii_lower(name.substr(start, end - start)), code_blank_in_name);
        start = end + 1;
    }
    if (name.find('@') != std::string_view::npos)
        expect_junk(mailbox->local.substr(0, mailbox->local.find('@')), code_at_in_name);
    if (server_.loses_beyond_utf8mb3 && is_beyond_utf8mb3(name))
        expect_junk(as_utf8mb3(mailbox->local), code_text_beyond_utf8mb3);
}

void DomainWalk::judge_texts(const WantedMailbox &mailbox, const std::string &address)
{
    static const char *const panel_names[reply_columns] = {"keystr",   "key_where",    "subject",  "reply_to",
                                                           "address",  "content_type", "charset",  "text",
                                                           "ans_freq", "mem_limit",    "mail_name"};

    if (!mailbox.loses_texts)
        return;
    for (std::size_t i = 0; i + 1 < reply_columns; i++) {
        if (is_beyond_utf8mb3(mailbox.columns[i]))
            find_in_panel(code_text_beyond_utf8mb3, address, panel_names[i]);
    }
    for (const std::string &name : mailbox.attachments) {
        if (is_beyond_utf8mb3(name)) {
            find_in_panel(code_text_beyond_utf8mb3, address, "filename");
            for (const Target &target : targets_)
                limits_.expect_junk(mailbox.local + '@' + target.reply_domain, &code_text_beyond_utf8mb3);
        }
    }
}

/* Replies are repeated at the aliases of each domain that stands in the mailbox's name, and these again. */
void DomainWalk::expect_repeated(const WantedMailbox &mailbox)
{
    std::vector<std::string> addresses;
    std::set<std::string> reached;

    if (mailbox.local.find('@') == std::string::npos)
        return;
    addresses.reserve(targets_.size());
    for (const Target &target : targets_)
        addresses.push_back(mailbox.local + '@' + target.reply_domain);
    for (std::size_t i = 0; i < addresses.size() && addresses.size() < most_repeated; i++) {
        for (const std::uint32_t place : limits_.domains_in(addresses[i])) {
            for (const PanelAlias &alias : names_.aliases_of(names_.domains[place])) {
                const std::string address =
                    replaced(addresses[i], '@' + names_.domains[place].name, '@' + alias.name);

                if (address == addresses[i] || !reached.insert(address).second)
                    continue;
                limits_.expect_junk(address,
                                    place == place_ ? &code_at_in_name : &code_alias_overlaps_domain);
                addresses.push_back(address);
            }
        }
    }
}

void DomainWalk::judge_mailbox(const PanelRows &row)
{
    WantedMailbox mailbox;
    const std::string freq = stored_number(row.text(first_text + 8));
    const std::string limit = stored_number(row.text(first_text + 9));
    const std::vector<std::string> &forwards = texts_of(forwards_, row.number(reply_id));

    if (row.number(mailbox_id) == last_mailbox_)
        return; /* another of several default replies */
    last_mailbox_ = row.number(mailbox_id);
    report_.summary().mailboxes += domain_->selected ? 1 : 0;
    report_.progress(++judged_mailboxes_, all_mailboxes_);

    mailbox.local = ascii_lower(row.text(mail_name));
    mailbox.loses_texts = server_.loses_beyond_utf8mb3;
    mailbox.has_reply = !row.is_null(reply_id);
    mailbox.is_certain = !odd_.contains(row.number(mailbox_id));
    for (unsigned int i = 0; i < reply_columns - 1; i++)
        mailbox.columns[i] = row.text(first_text + i);
    mailbox.columns[4] = forwards.empty() ? "" : std::string_view(forwards.back());
    mailbox.columns[8] = freq;
    mailbox.columns[9] = limit;
    mailbox.forwards = forwards;
    mailbox.attachments = texts_of(attachments_, row.number(reply_id));

    const std::string owner = mailbox.local + '@' + targets_.front().reply_domain;

    mailbox.columns[10] = owner;
    judge_name(row, owner, &mailbox);
    if (!mailbox.has_reply)
        find_in_panel(code_no_default_reply, owner);
    else if (!mailbox.is_certain)
        find_in_panel(code_several_default_replies, owner);
    if (forwards.size() > 1)
        find_in_panel(code_several_forwards, owner);
    judge_texts(mailbox, owner);
    expect_repeated(mailbox);
    for (const std::uint32_t taker : limits_.takers(names_, mailbox.local, place_)) {
        for (const PanelAlias &alias : names_.aliases_of(names_.domains[taker])) {
            find_in_panel(code_alias_overlaps_domain, alias.name, "", owner);
            /* Handlers are copied up to their first @. */
            limits_.expect_junk(mailbox.local.substr(0, mailbox.local.find('@')) + '@' +
                                    ascii_lower(alias.name),
                                &code_alias_overlaps_domain);
        }
    }
    for (const Target &target : targets_) {
        const std::string address = mailbox.local + '@' + target.reply_domain;
        const std::string handler = mailbox.local + '@' + target.handler_domain;
        WantedMailbox wanted = mailbox;

        if (limits_.is_twice(address) || limits_.is_twice(handler)) {
            find_in_panel(code_address_twice, address);
            wanted.is_certain = false;
            wanted.limits = {first_of(wanted.limits.reply, &code_address_twice),
                             first_of(wanted.limits.handler, &code_address_twice)};
        }
        wanted.limits.reply = first_of(wanted.limits.reply, limits_.of_reply(address));
        if (wanted.limits.reply == nullptr && target.is_alias && has_domain(mailbox.local, *domain_))
            wanted.limits.reply = &code_at_in_name;
        judge_.judge(*domain_, target, wanted);
    }
}

} // namespace kolmo
