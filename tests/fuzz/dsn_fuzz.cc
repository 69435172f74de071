/* The DSN file: the five settings that are read from it, and their defaults. */
#include <map>
#include <string>

#include "common/ini_file.h"
#include "common/owned.h"
#include "panel/panel_credentials.h"
#include "tests/fuzz/fuzz_support.h"

namespace kolmo::testing
{

namespace
{

std::string trimmed(std::string text)
{
    text.resize(std::min(text.find(';'), text.size()));
    while (!text.empty() && is_blank(text.back()))
        text.pop_back();
    while (!text.empty() && is_blank(text.front()))
        text.erase(0, 1);
    return text;
}

/* The settings of section "kolmo"; of two with the same key the first counts. */
std::map<std::string, std::string> settings_of(const std::string &content)
{
    std::map<std::string, std::string> settings;
    bool in_section = false;

    for (const std::string &line : lines_of(content)) {
        const std::string entry = trimmed(until_zero(line));
        const std::size_t equals = entry.find('=');

        if (entry.size() >= 3 && entry.front() == '[' && entry.back() == ']')
            in_section = entry == "[kolmo]";
        else if (in_section && equals != std::string::npos)
            settings.emplace(trimmed(entry.substr(0, equals)), trimmed(entry.substr(equals + 1)));
    }
    return settings;
}

void compare(const PanelCredentials &credentials, const std::map<std::string, std::string> &settings)
{
    const auto setting = [&](const char *key, const char *otherwise) {
        const auto found = settings.find(key);

        return found != settings.end() ? found->second : otherwise;
    };

    require_same(credentials.host.get(), setting("host", "localhost"), "host");
    require_same(credentials.user.get(), setting("username", "admin"), "user");
    require_same(credentials.password.get(), setting("password", "from the other file"), "password");
    require_same(credentials.database.get(), setting("dbname", "qsx"), "database");
    require(credentials.port == static_cast<unsigned int>(leading_number(setting("port", ""))), "port");
}

/* The switch that a setting is when it is read as one; 7 stands for the default. */
int switch_of(std::string value)
{
    for (char &c : value)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 'a' - 'A') : c;
    return value.empty() ? 7 : int{value == "on" || value == "true" || value == "yes" || value == "1"};
}

} // namespace

} // namespace kolmo::testing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    using namespace kolmo::testing;
    static const MemoryFile dsn("dsn");
    static const MemoryFile shadow("shadow");
    const std::string content = Input(bytes, size).rest();
    kolmo::PanelCredentials credentials;
    char error[64] = "";

    dsn.write(content);
    shadow.write("from the other file\n");
    kolmo::panel_dsn_path = dsn.path();
    kolmo::panel_shadow_path = shadow.path();

    auto settings = settings_of(content);

    require(kolmo::panel_read_credentials(&credentials, error, sizeof error) == 0, "nothing is missing");
    compare(credentials, settings);
    require(kolmo::ini_get_bool(dsn.path(), "kolmo", "host", 7) == switch_of(settings["host"]), "switch");
    return 0;
}
