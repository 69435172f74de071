#include <cstdio>

#include "verify/json_line.h"
#include "verify/output.h"

namespace kolmo
{

namespace
{

class JsonOutput : public Output
{
public:
    explicit JsonOutput(bool quiet) : quiet_(quiet) {}

    void begin(const DatabaseSource &source, const std::string &responder_store,
               const std::string &handlers_store) override
    {
        if (!quiet_)
            print_json_line(
                {{"verify", 1},
                 {"database", {{"host", source.host}, {"user", source.user}, {"name", source.name}}},
                 {"responder_store", responder_store},
                 {"handlers_store", handlers_store}});
    }

    void finding(const Finding &finding) override;

    void trouble(const std::string &text) override { print_json_line({{"trouble", text}}); }

    void note(const std::string &text) override
    {
        if (!quiet_)
            print_json_line({{"note", text}});
    }

    void end(const VerifySummary &summary, double seconds) override;

private:
    bool quiet_;
};

void JsonOutput::finding(const Finding &finding)
{
    JsonObject object = {{"code", finding.code->name}, {"store", place_name(finding.place)}};
    const auto add = [&](const char *key, const std::string &text) {
        if (!text.empty())
            object[key] = text;
    };

    add("domain", finding.domain);
    add("address", finding.address);
    add("column", finding.column);
    if (finding.expected)
        object["expected"] = *finding.expected;
    if (finding.found)
        object["found"] = *finding.found;
    object["remedy"] = remedy_name(finding.remedy);
    object["help"] = finding.help + (finding.command.empty() ? "" : ": " + finding.command);
    print_json_line(object);
}

void JsonOutput::end(const VerifySummary &summary, double seconds)
{
    if (!quiet_)
        print_json_line({{"summary",
                          {{"domains", summary.domains},
                           {"mailboxes", summary.mailboxes},
                           {"aliases", summary.aliases},
                           {"findings", summary.findings()},
                           {"rebuild", summary.rebuild},
                           {"panel", summary.panel},
                           {"manual", summary.manual},
                           {"seconds", seconds}}}});
}

} // namespace

std::unique_ptr<Output> make_json_output(bool quiet)
{
    return std::make_unique<JsonOutput>(quiet);
}

} // namespace kolmo
