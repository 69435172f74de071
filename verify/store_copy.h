/*
 * store_copy: a store looked at without touching it, and a private copy of it.
 */
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "verify/sqlite_query.h"

namespace kolmo
{

/* Hears what is wrong with a store, a sentence each. */
using TroubleSink = std::function<void(const std::string &)>;

/*
 * What can be told of a store's file without SQLite: that it is there, a regular file, a database, and not
 * in WAL mode, in which SQLite would write to read it.
 *
 * Returns 0, or -1 after telling the trouble.
 */
[[nodiscard]] int check_store_file(const std::string &path, const TroubleSink &trouble);

/* Who may own and read a store; each tells what is wrong, and the command that mends it. */
void check_handlers_owner(const std::string &path, const TroubleSink &trouble);   /* root, popuser, 0640 */
void check_responder_reader(const std::string &path, const TroubleSink &trouble); /* popuser can read it */

/*
 * Copies a store into a database of our own in the folder for temporary files: mode 0600, without a name.
 *
 * The copy is made in steps of a moment, which let go of the lock in between; when somebody changes the store
 * meanwhile, it begins again, and after ten beginnings is made in one step.
 *
 * wait  how long a lock is waited for, all in all
 * Returns the copy, whose PRAGMA quick_check was clean; null after telling the trouble.
 */
[[nodiscard]] SqliteConnection copy_store(const std::string &path, std::chrono::milliseconds wait,
                                          const TroubleSink &trouble);

} // namespace kolmo
