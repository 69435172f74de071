/*
 * store_file: where a store's file really is, whether by a link, and whether it has anything in it.
 */
#pragma once

#include <string>

namespace kolmo
{

/* The path behind symbolic links, beside which SQLite keeps the journal; where that cannot be told, `path`.
 */
[[nodiscard]] std::string real_path(const std::string &path);

[[nodiscard]] bool is_link(const std::string &path);

/* Also when it cannot be asked. */
[[nodiscard]] bool is_missing_or_empty(const std::string &path);

} // namespace kolmo
