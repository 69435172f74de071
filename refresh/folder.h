/*
 * folder: the folder that a refresh stages in, and how it goes, whoever made it.
 */
#pragma once

#include <string>

namespace kolmo
{

/* What the names of all staging folders begin with; sixteen digits of chance follow. */
inline constexpr char staging_prefix[] = "mail_responders_refresh-staging.";

/* A name that nobody knows before, in a folder. */
[[nodiscard]] std::string new_staging_path(const std::string &parent);

/*
 * Takes a staging folder away: what is mounted on it in this mount namespace, all that is in it, and itself.
 * Only a folder that is provably a refresh's is touched: one with the prefix, a real folder, ours, mode 0700.
 * Links in it are removed, never followed.  Memory is not asked for: safe in a signal handler.
 *
 * Returns 0, also when there is none; -1 when it is not ours or something is left: errno says why.
 */
int remove_staging_folder(const char *path) noexcept;

/* The same for all that is in the folder, which itself stays. */
int empty_staging_folder(const char *path) noexcept;

} // namespace kolmo
