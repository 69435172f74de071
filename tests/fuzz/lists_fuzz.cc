/* Lists in a text: split at any delimiters, and put together again entry by entry. */
#include <string>
#include <utility>

#include "common/string_array.h"
#include "tests/fuzz/fuzz_support.h"

namespace kolmo::testing
{

namespace
{

/* No entry is empty but the one after the last delimiter. */
Lines split(const std::string &text, const std::string &delimiters)
{
    Lines entries;
    std::string entry;

    for (const char c : text) {
        if (delimiters.find(c) == std::string::npos)
            entry += c;
        else if (!entry.empty())
            entries.push_back(std::exchange(entry, ""));
    }
    entries.push_back(entry);
    return entries;
}

void compare(char **array, const Lines &entries, const char *what)
{
    for (const std::string &entry : entries)
        require_same(shown(*array++), shown(entry.c_str()), what);
    require(*array == nullptr, "the array ends after its last entry");
}

} // namespace

} // namespace kolmo::testing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    using namespace kolmo::testing;
    Input input(bytes, size);
    const std::string delimiters = input.text();
    const std::string text = input.text();
    const Lines entries = split(text, delimiters);
    kolmo::StringArray joined = nullptr;
    std::string list;

    const kolmo::OwnedStringArray array(kolmo::string_array_split(text.c_str(), delimiters.c_str()));

    compare(array.get(), entries, "entry");
    for (const std::string &entry : entries) {
        joined = kolmo::string_array_add(joined, entry.c_str());
        list += (list.empty() ? "" : delimiters) + entry;
    }

    const kolmo::OwnedStringArray owned(joined);
    const kolmo::OwnedStringArray again(kolmo::string_array_split(list.c_str(), delimiters.c_str()));

    compare(joined, entries, "entry that was added");
    if (!delimiters.empty())
        compare(again.get(), entries, "entry of the list put together again");
    return 0;
}
