#include <cstdio>

#include <nlohmann/json.hpp>

#include "verify/output.h"

namespace kolmo
{

namespace
{

using Object = nlohmann::ordered_json;

/* DEL and C1 stand in a dump as they are; they occur within its texts only. */
std::string without_controls(const std::string &dump)
{
    std::string result;

    for (std::size_t i = 0; i < dump.size(); i++) {
        const auto byte = static_cast<unsigned char>(dump[i]);
        const auto next = static_cast<unsigned char>(i + 1 < dump.size() ? dump[i + 1] : 0);
        char text[8];

        if (byte == 0x7f || (byte == 0xc2 && next >= 0x80 && next <= 0x9f)) {
            (void)std::snprintf(text, sizeof text, "\\u%04x",
                                static_cast<unsigned int>(byte == 0x7f ? byte : next));
            result += text;
            i += byte == 0x7f ? 0 : 1;
        } else {
            result += dump[i];
        }
    }
    return result;
}

void print(const Object &object)
{
    const std::string line =
        without_controls(object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)) + '\n';

    (void)std::fwrite(line.data(), 1, line.size(), stdout);
}

class JsonOutput : public Output
{
public:
    explicit JsonOutput(bool quiet) : quiet_(quiet) {}

    void begin(const DatabaseSource &source, const std::string &responder_store,
               const std::string &handlers_store) override
    {
        if (!quiet_)
            print({{"verify", 1},
                   {"database", {{"host", source.host}, {"user", source.user}, {"name", source.name}}},
                   {"responder_store", responder_store},
                   {"handlers_store", handlers_store}});
    }

    void finding(const Finding &finding) override;

    void trouble(const std::string &text) override { print({{"trouble", text}}); }

    void note(const std::string &text) override
    {
        if (!quiet_)
            print({{"note", text}});
    }

    void end(const VerifySummary &summary, double seconds) override;

private:
    bool quiet_;
};

void JsonOutput::finding(const Finding &finding)
{
    Object object = {{"code", finding.code->name}, {"store", place_name(finding.place)}};
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
    print(object);
}

void JsonOutput::end(const VerifySummary &summary, double seconds)
{
    if (!quiet_)
        print({{"summary",
                {{"domains", summary.domains},
                 {"mailboxes", summary.mailboxes},
                 {"aliases", summary.aliases},
                 {"findings", summary.findings()},
                 {"rebuild", summary.rebuild},
                 {"panel", summary.panel},
                 {"manual", summary.manual},
                 {"seconds", seconds}}}});
    (void)std::fflush(stdout);
}

} // namespace

std::unique_ptr<Output> make_json_output(bool quiet)
{
    return std::make_unique<JsonOutput>(quiet);
}

} // namespace kolmo
