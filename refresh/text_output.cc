#include <cstdio>
#include <system_error>

#include <fmt/format.h>

#include "refresh/output.h"
#include "verify/output.h"
#include "verify/printable.h"

namespace kolmo
{

namespace
{

/* What the rows of a table are to people. */
struct Noun {
    const char *one;
    const char *many;
};
constexpr Noun nouns[changed_tables] = {
    {"reply", "replies"}, {"attachment", "attachments"}, {"header", "headers"}, {"handler", "handlers"}};

/* "12 replies added, 3 changed, 1 removed"; empty when nothing of the table changes. */
std::string counts_of_table(const ChangeCounts &counts, std::size_t table)
{
    std::string text;

    for (std::size_t i = 0; i < change_kinds; i++) {
        const auto kind = static_cast<ChangeKind>(i);
        const unsigned long rows = counts.of(kind, static_cast<ChangedTable>(table));

        if (rows == 0)
            continue;
        if (text.empty())
            text = fmt::format("{} {} {}", rows, rows == 1 ? nouns[table].one : nouns[table].many,
                               change_name(kind));
        else
            text += fmt::format(", {} {}", rows, change_name(kind));
    }
    return text;
}

std::string changes_text(const RefreshEnd &end)
{
    std::string text = end.replaces_responder ? "the responder store's file replaced" : "";

    for (std::size_t table = 0; table < changed_tables; table++) {
        const std::string part = counts_of_table(end.counts, table);

        text += (text.empty() || part.empty() ? "" : "; ") + part;
    }
    return text.empty() ? "nothing" : text;
}

/* A stream that cannot be written to must not end a refresh half-way: its status tells how it ended, too. */
template <typename Words>
void tell(const Words &words)
{
    try {
        words();
    } catch (const std::system_error &) {
        return; /* where it was to be told, that cannot be told either */
    }
}

class TextOutput : public RefreshOutput
{
public:
    TextOutput(bool quiet, bool color) : quiet_(quiet), color_(color) { begin_look(); }

    void trouble(const std::string &text) override
    {
        tell([&] { verify_->trouble(text); });
    }
    void note(const std::string &text) override
    {
        tell([&] { verify_->note(text); });
    }

    void begin_look() final
    {
        verify_ = make_text_output("mail_responders_refresh", quiet_, color_);
        has_findings_ = false;
    }

    void finding(const Finding &finding) override
    {
        verify_->finding(finding);
        has_findings_ = true;
    }

    void end_look(const DatabaseSource &, const std::string &, const std::string &,
                  const StagedLook &look) override
    {
        if (has_findings_)
            tell([&] { verify_->end(look.summary, look.seconds); });
    }

    void change(const Change &change) override
    {
        tell([&] {
            fmt::print("{:<7}  {:<10}  {}\n", change_name(change.kind),
                       nouns[static_cast<std::size_t>(change.table)].one, printable(change.key));
        });
    }

    void end(const RefreshEnd &end) override
    {
        tell([&] { print_end(end); });
        (void)std::fflush(stdout);
    }

private:
    void print_end(const RefreshEnd &end) const;

    bool quiet_;
    bool color_;
    std::unique_ptr<Output> verify_;
    bool has_findings_ = false;
};

void TextOutput::print_end(const RefreshEnd &end) const
{
    if (!is_told(end.result, quiet_))
        return;
    switch (end.result) {
    case Result::published:
        fmt::print("{}\n", changes_text(end));
        break;
    case Result::published_in_part:
        fmt::print("published in part: {}\n", changes_text(end));
        break;
    case Result::nothing_to_do:
        fmt::print("nothing to do: the live stores are as a rebuild makes them\n");
        break;
    case Result::dry_run:
        fmt::print("would publish: {}\n", changes_text(end));
        break;
    default: /* the trouble was told */
        break;
    }
}

} // namespace

std::unique_ptr<RefreshOutput> make_refresh_text_output(bool quiet, bool color)
{
    return std::make_unique<TextOutput>(quiet, color);
}

} // namespace kolmo
