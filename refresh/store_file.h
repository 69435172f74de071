/*
 * store_file: where a store's file really is, and whether it has anything in it.
 */
#pragma once

#include <string>

namespace kolmo
{

/* The path behind symbolic links, beside which SQLite keeps the journal; the same path when it cannot be
 * told.
 */
[[nodiscard]] std::string real_path(const std::string &path);

[[nodiscard]] bool is_missing_or_empty(const std::string &path);

} // namespace kolmo
