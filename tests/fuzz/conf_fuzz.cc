/* The panel's configuration file: its variables, in order, and the complaints about its lines. */
#include <cstdlib>
#include <map>
#include <string>

#include "panel/panel_conf.h"
#include "tests/fuzz/fuzz_support.h"

namespace kolmo::testing
{

namespace
{

struct Model {
    std::map<std::string, std::string> variables;
    Lines complaints;

    void read_line(const std::string &line);
    void complain(const std::string &line, const char *what)
    {
        complaints.push_back("12 Invalid variable definition " + line + what);
    }
};

std::string without_leading_blanks(std::string text)
{
    while (!text.empty() && is_blank(text.front()))
        text.erase(0, 1);
    return text;
}

void Model::read_line(const std::string &line)
{
    const std::string definition = without_leading_blanks(line);

    if (definition.empty() || definition[0] == '#')
        return;

    const std::size_t name_length =
        definition.find_first_not_of("0123456789_ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");

    if (name_length == std::string::npos || !is_blank(definition[name_length]))
        return complain(definition, "\nExpected a space after variable name\n");

    std::string value = without_leading_blanks(definition.substr(name_length));

    if (value.empty() || value[0] == '#')
        return complain(definition, "\nExpected a value");
    value.resize(std::min(value.find('#'), value.size()));

    std::size_t blanks = 0;

    while (is_blank(value[value.size() - 1 - blanks]))
        blanks++;
    if (blanks % 2 == 1)
        value.pop_back();
    variables[definition.substr(0, name_length)] = value;
}

void compare(const QsxConfStore *store, const Model &model)
{
    std::size_t i = 0;

    require(store->count == model.variables.size(), "number of variables");
    for (const auto &[name, value] : model.variables) { /* ascending by name, as the store is */
        require_same(store->entries[i].name, name, "name");
        require_same(store->entries[i++].value, value, "value");
        require_same(shown(conf_store_find(store, name.c_str())), shown(value.c_str()), "value looked up");
    }
    require(conf_store_find(store, "no name") == nullptr, "a variable that is nowhere");
    require(take_log() == model.complaints, "complaints");
}

} // namespace

} // namespace kolmo::testing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    using namespace kolmo::testing;
    static const MemoryFile file("conf");
    const std::string content = Input(bytes, size).rest();
    auto *const store = static_cast<kolmo::QsxConfStore *>(std::calloc(1, sizeof(kolmo::QsxConfStore)));
    Model model;

    record_log();
    file.write(content);
    for (const std::string &line : lines_of(content))
        model.read_line(until_zero(line));
    require(kolmo::conf_parse_file(file.path(), store) == 0, "the file can be read");
    compare(store, model);
    kolmo::conf_store_free(store);
    return 0;
}
