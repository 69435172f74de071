#include <cstdio>
#include <iterator>
#include <map>
#include <set>
#include <vector>

#include <fmt/format.h>

#include "verify/output.h"
#include "verify/printable.h"

namespace kolmo
{

namespace
{

constexpr std::size_t width = 100;
constexpr std::size_t code_width = 26;
constexpr std::size_t indent = 2;
constexpr std::size_t detail_indent = indent + code_width;
constexpr std::size_t command_indent = 4;

/* 16,000 for 16000. */
std::string grouped(unsigned long number)
{
    std::string digits = std::to_string(number);

    for (std::size_t place = digits.size(); place > 3; place -= 3)
        digits.insert(place - 3, 1, ',');
    return digits;
}

std::string counted(unsigned long number, const char *one, const char *many)
{
    return grouped(number) + ' ' + (number == 1 ? one : many);
}

/* The findings of one domain, printed as they will stand. */
struct Group {
    std::string name;
    std::string lines;
};

class TextOutput : public Output
{
public:
    TextOutput(const char *program, bool quiet, bool color)
        : head_(std::string(program) + ": "), quiet_(quiet), color_(color)
    {
    }

    void begin(const DatabaseSource &source, const std::string &responder_store,
               const std::string &handlers_store) override;
    void finding(const Finding &finding) override;
    void trouble(const std::string &text) override;
    void note(const std::string &text) override;
    void end(const VerifySummary &summary, double seconds) override;

private:
    [[nodiscard]] std::string styled(const Finding &finding, const std::string &text) const;
    [[nodiscard]] std::string details(const Finding &finding) const;
    void print_help() const;

    std::string head_; /* of what goes to standard error */
    bool quiet_;
    bool color_;
    bool begun_ = false;        /* something stands above the findings */
    std::vector<Group> groups_; /* in the order of their first finding */
    std::map<std::string, std::size_t> places_;
    std::map<std::pair<int, std::string>, std::vector<std::string>> helps_; /* by remedy: codes */
    std::set<std::string> codes_;                                           /* that are in helps_ */
};

void print_wrapped(std::FILE *stream, const std::string &head, const std::string &text)
{
    std::string lead = head;

    for (const std::string &line : wrap(printable(text), width - columns_of(head))) {
        fmt::print(stream, "{}{}\n", lead, line);
        lead = std::string(columns_of(head), ' ');
    }
}

void TextOutput::begin(const DatabaseSource &source, const std::string &responder_store,
                       const std::string &handlers_store)
{
    std::string origins;

    if (quiet_)
        return;
    begun_ = true;
    for (const std::string &origin : source.origins)
        origins += (origins.empty() ? "" : ", ") + origin;
    print_wrapped(stdout, "panel database   ",
                  fmt::format("{} on {} ({}), as {}", source.name, source.host, source.door, source.user));
    print_wrapped(stdout, "                 ", origins);
    print_wrapped(stdout, "responder store  ", responder_store);
    print_wrapped(stdout, "handlers store   ", handlers_store);
    (void)std::fflush(stdout);
}

std::string TextOutput::styled(const Finding &finding, const std::string &text) const
{
    /* Red: a rebuild mends it; yellow: the panel; magenta: by hand. */
    static const char *const styles[] = {"\x1b[31m", "\x1b[33m", "\x1b[35m"};

    return color_ ? styles[static_cast<int>(finding.remedy)] + text + "\x1b[0m" : text;
}

std::string TextOutput::details(const Finding &finding) const
{
    const std::string margin(detail_indent, ' ');
    constexpr std::size_t label = 10; /* "expected " and room for the quotes */
    const auto quoted = [&](const char *what, const std::string &text) {
        return fmt::format("{}{:<9}\"{}\"\n", margin, what, text);
    };
    std::string lines;

    if (finding.expected && finding.found) {
        const TwoTexts texts = cut_around_difference(printable(*finding.expected), printable(*finding.found),
                                                     width - detail_indent - label - 1);

        return quoted("expected", texts.first) + quoted("found", texts.second);
    }
    if (finding.expected)
        lines +=
            quoted("expected", cut_columns(printable(*finding.expected), width - detail_indent - label - 1));
    if (finding.found)
        lines += quoted("found", cut_columns(printable(*finding.found), width - detail_indent - label - 1));
    return lines;
}

void TextOutput::finding(const Finding &finding)
{
    const auto [place, is_new] = places_.emplace(finding.domain, groups_.size());
    const FindingCode &behind = finding.limit != nullptr ? *finding.limit : *finding.code;
    std::string what = printable(finding.address);

    if (is_new)
        groups_.push_back({finding.domain, ""});
    if (!finding.column.empty())
        what += (what.empty() ? "" : ": ") + finding.column;
    if (finding.limit != nullptr)
        what += fmt::format(" (because of {})", finding.limit->name);

    std::string &lines = groups_[place->second].lines;
    const std::string code = finding.code->name;

    lines += fmt::format("{:{}}{}{:{}}{}\n", "", indent, styled(finding, code), "",
                         code_width > code.size() ? code_width - code.size() : 1,
                         cut_columns(what, width - detail_indent));
    lines += details(finding);
    /* Broken within the quotes, where neither the shell nor SQL minds. */
    for (const std::string &line : wrap(printable(finding.command), width - command_indent))
        lines += fmt::format("{:{}}{}\n", "", command_indent, line);

    const std::pair key(static_cast<int>(finding.remedy), finding.help);

    if (codes_.insert(behind.name).second)
        helps_[key].emplace_back(behind.name);
}

void TextOutput::trouble(const std::string &text)
{
    print_wrapped(stderr, head_, text);
}

void TextOutput::note(const std::string &text)
{
    if (!quiet_)
        print_wrapped(stderr, head_ + "note: ", text);
}

void TextOutput::print_help() const
{
    if (!helps_.empty())
        fmt::print("\nWhat mends it\n");
    for (const auto &[key, codes] : helps_) {
        print_wrapped(stdout, fmt::format("  {:<9}", remedy_name(static_cast<Remedy>(key.first))),
                      key.second);
        for (const std::string &line : wrap(fmt::format("({})", fmt::join(codes, ", ")), width - 11))
            fmt::print("{:11}{}\n", "", line);
    }
}

void TextOutput::end(const VerifySummary &summary, double)
{
    std::string line = fmt::format("{} in {}: ", counted(summary.mailboxes, "mailbox", "mailboxes"),
                                   counted(summary.domains, "domain", "domains"));
    const char *separator = "; ";
    const auto add = [&](unsigned long count, const char *what) {
        if (count > 0)
            line += fmt::format("{}{} {}", separator, grouped(count), what);
        separator = count > 0 ? ", " : separator;
    };

    for (const Group &group : groups_)
        fmt::print("{}{}\n{}", begun_ || &group != groups_.data() ? "\n" : "",
                   group.name.empty() ? "all replies" : cut_columns(printable(group.name), width),
                   group.lines);
    if (!quiet_) {
        print_help();
        line += summary.findings() > 0 ? counted(summary.findings(), "finding", "findings") : "no finding";
        add(summary.rebuild, "a rebuild mends");
        add(summary.panel, "to mend in the panel");
        add(summary.manual, "by hand");
        add(summary.troubles, summary.troubles == 1 ? "thing not to be trusted" : "things not to be trusted");
        fmt::print("\n");
        print_wrapped(stdout, "", line);
    }
    (void)std::fflush(stdout);
}

} // namespace

std::unique_ptr<Output> make_text_output(const char *program, bool quiet, bool color)
{
    return std::make_unique<TextOutput>(program, quiet, color);
}

} // namespace kolmo
