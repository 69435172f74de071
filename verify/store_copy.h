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

/* What can be told of a store's file without SQLite; errno says why it is unreadable. */
enum class StoreFileKind { database, database_in_wal_mode, no_database, empty, no_file, missing, unreadable };

[[nodiscard]] StoreFileKind look_at_store_file(const std::string &path);

/*
 * Whether it is there, a regular file, a database, and not in WAL mode, in which SQLite would write to read
 * it.
 *
 * Returns 0, or -1 after telling the trouble.
 */
[[nodiscard]] int check_store_file(const std::string &path, const TroubleSink &trouble);

/* Tells when root:popuser does not own the handlers store with mode 0640, or when popuser cannot read the
   responder store, and the command that mends it. */
void check_owners(const std::string &responders, const std::string &handlers, const TroubleSink &trouble);

/* What is to blame for SQLITE_FULL in a private copy, rather than the store. */
inline constexpr char no_space_for_copy[] =
    "no private copy can be made in the folder for temporary files (TMPDIR): no space";

enum class CopyEnding {
    copied,  /* and PRAGMA integrity_check was clean */
    damaged, /* or no database; told */
    failed   /* told */
};

/*
 * Copies a store over a database of our own, by SQLite's backup interface.
 *
 * The copy is made in steps of a moment, which let go of the lock in between; when somebody changes the store
 * meanwhile, it begins again, and after ten beginnings is made in one step.
 *
 * wait  how long a lock is waited for, each time
 * copy  a connection whose main database becomes the copy
 */
[[nodiscard]] CopyEnding copy_database(const std::string &path, std::chrono::milliseconds wait, sqlite3 *copy,
                                       const TroubleSink &trouble);

/* A database of our own in the folder for temporary files: mode 0600, without a name.  Null after telling
   the trouble. */
[[nodiscard]] SqliteConnection open_private_database(const TroubleSink &trouble);

/* Copies a store into a private database.  Returns it, or null after telling the trouble. */
[[nodiscard]] SqliteConnection copy_store(const std::string &path, std::chrono::milliseconds wait,
                                          const TroubleSink &trouble);

} // namespace kolmo
