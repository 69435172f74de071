/*
 * string_array: a null-terminated array of texts on the heap.
 */
#ifndef KOLMO_COMMON_STRING_ARRAY_H
#define KOLMO_COMMON_STRING_ARRAY_H

#include <memory>

namespace kolmo
{

/* The array owns its texts; it is never empty (there is null instead). */
using StringArray = char **;

[[nodiscard]] StringArray string_array_split(const char *text, const char *delimiters);
[[nodiscard]] StringArray string_array_add(StringArray array, const char *text);
void string_array_free(StringArray array);

struct FreeStringArray {
    void operator()(char **array) const noexcept { string_array_free(array); }
};
using OwnedStringArray = std::unique_ptr<char *[], FreeStringArray>;

} // namespace kolmo

#endif
