/*
 * sqlite_file: making an SQLite file from a script, and the folders above it.
 */
#pragma once

namespace kolmo
{

/*
 * Opens the SQLite file at `path`, creating it if it is missing, and runs `script` on it.  `label` names
 * the store in messages.  Nothing is dropped first: a script that creates tables fails where they exist, and
 * one in a transaction of its own then leaves the file as it was.
 *
 * Returns 0, or -1 after logging, at priority 3, "Unable to open database %s: %s" (path, detail) or
 * "Unable to re-create %s database: %s" (label, SQLite's text; without one, and its colon, when SQLite gave
 * none).  -1 without a message when a pause of the busy rule failed.  On a locked file the whole script is
 * repeated: one with a transaction of its own then fails at the BEGIN that is open already.
 */
[[nodiscard]] int sqlite_db_recreate(const char *path, const char *script, const char *label);

/*
 * Creates the folders that lead to the file `path` and do not exist yet (make_dirs).
 *
 * Returns 0, or -1 with errno set after logging, at priority 2, "Memory allocation error", "Unable to get
 * dirname for %s database (%s): %s (%d)" (label, path, system error text and number) or "Unable to create
 * directories for %s database (%s): %s (%d)" (label, folder, system error text and number).
 */
[[nodiscard]] int db_make_parent_dirs(const char *path, const char *label);

/*
 * Creates `directory` and the folders above it that do not exist yet, each with mode 0755 under the
 * process's umask (mkdir(2)); those that exist are left as they are.
 *
 * Returns 0, or -1 with errno set: ENOTDIR when something on the way is no folder, else what stat(2) or
 * mkdir(2) said.  Folders made before the failure stay.  Logs nothing.
 */
[[nodiscard]] int make_dirs(const char *directory);

} // namespace kolmo
