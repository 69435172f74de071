/*
 * handlers_db: the handlers store, which tells the mail server which programs to run for which recipient.
 *
 * An SQLite file with one table, `handlers`; its key is (queue, type, name, address), so writing a handler
 * again replaces it.  Addresses are stored in lower case.
 *
 * The operations on the table go by what responder_store/kit/store_connection.h says of all operations.  What
 * changes the store opens it for reading and writing and creates a missing file; the selects open it
 * read-only and never create it.  Two more messages are theirs:
 *     "Unable to open database(readonly) %s: %s"                 path, detail
 *     "Unable to bind parameter 'NAME' to the 'KIND' query: %s"  detail
 */
#pragma once

#include "handlers_store/handler_record.h"
#include "responder_store/kit/store_connection.h"

namespace kolmo
{

/* Where the store lies; read at every open. */
extern const char *handlers_db_path;

/* Makes handlers_db_path point at `path`, which is not copied: the caller keeps it alive. */
void handlers_db_set_path(const char *path);

/*
 * Creates the store at handlers_db_path, owned by root and the group "popuser", mode 0640, with the folders
 * that lead to it.  A missing or empty file becomes the store, and so does a database without these tables
 * and indexes; an existing store is not touched.
 *
 * Returns 0, or -1 after a message of handlers_db_create_schema, or without one when a pause failed: a file
 * or folder that was made stays, for it may be another process's store by then.  -1 after a message of
 * handlers_db_set_permissions, and then the file is removed, so that no store with a wrong owner or mode is
 * left behind.  errno means nothing afterwards.
 */
[[nodiscard]] int handlers_db_create();

/*
 * The file and its table without owner and mode.
 *
 * Returns 0, or -1 after the messages of db_make_parent_dirs, with "Unable to create directory for mail
 * handlers database for(%s): %s" (path, system error text; priority 2), or of sqlite_db_recreate
 * (handlers_store/sqlite_file.h), whose silence after a failed pause it shares.  errno means nothing
 * afterwards.
 */
[[nodiscard]] int handlers_db_create_schema();

/*
 * Gives the file `path` to root and the group "popuser", mode 0640.
 *
 * Returns 0, or -1 after logging, at priority 2, "Unable to get mail handlers group uid: %s"
 * (system error text), "Unable to set owner on %s: %s" or "Unable to set permissions on %s: %s" (path,
 * system error text).  Reads the group database (getgrnam(3)).
 */
[[nodiscard]] int handlers_db_set_permissions(const char *path);

/*
 * What is done with one record, on the connection or, when that is null, on one of the action's own.
 * Returns 0 or -1.  The record is the list's own copy: an action may change it and owns its texts.
 */
using HandlerAction = int (*)(StoreConnection *connection, HandlerRecord *record);

/*
 * Applies `action` to every record of the list, from its head, in one transaction.  What an action returns
 * is ignored: a record that fails is left out, the others go on and are committed.
 *
 * Returns 0 once the transaction has ended, else -1: after "Unable to begin sqlite transaction: %s" or
 * "Unable to end sqlite transaction: %s" (detail), which close the connection like a failed prepare, or
 * without a message of its own when an action closed the connection (the batch stops and SQLite discards it)
 * or met a failed pause (the batch stops and its transaction stays open).  A null list is an empty one.
 */
[[nodiscard]] int handlers_db_run_actions(const HandlerList *list, StoreConnection *connection,
                                          HandlerAction action);

/*
 * Adds or replaces one handler; the address is stored in lower case, a null context as "none".  For a
 * record of type HANDLER_TYPE_GLOBAL the address is what handlers_global_address makes of it, for any other
 * it must not be null.  The record is not changed.
 *
 * Returns 0, or -1: after the message of handlers_global_address, before any work on the store, or after
 * "Unable to execute insert record into handlers database: %s" (detail), which leaves the connection open.
 */
[[nodiscard]] int handlers_db_insert_action(StoreConnection *connection, HandlerRecord *record);

/*
 * Deletes one handler, found by name, type, queue and address (in any case).  A global handler, and an
 * address that is null, empty or "all", means the handler of every address; the record's address, which
 * must be null or from malloc, then becomes a new "all".  "all-recipients" is an address like any other but
 * for global handlers.
 *
 * Returns 0, also when there was no such handler, or -1 after "System error: %s" (system error text; before
 * any work on the store) or "Unable to execute delete record from handlers database: %s" (detail), which
 * leaves the connection open.
 */
[[nodiscard]] int handlers_db_delete_action(StoreConnection *connection, HandlerRecord *record);

/*
 * The address of a global handler: "all" for null and the empty text, `address` itself when it is exactly
 * "all" or "all-recipients"; else null after logging "Incorrect recipient address for global handler,
 * expected [NULL|EMPTY_STRING|%s|%s]".  The result is a constant or the argument: never to be freed.
 */
[[nodiscard]] const char *handlers_global_address(const char *address);

/*
 * The selects append a copy of each row to `list`, which the caller has initialised and frees, so that the
 * list runs in the reverse of the rows' order; what was read before a failure is in it too.  The column
 * `protected` is not read.
 */

/*
 * Which handlers run, for the filter's type, queue, enabled and address, compared exactly (stored addresses
 * are lower-case) and cut to 501 bytes; the list runs from the lowest priority to the highest.  Handlers of
 * "all" are not merged in: ask again with a filter of type HANDLER_TYPE_GLOBAL, whose address may be null
 * (for "all"), "all" or "all-recipients"; a null address of any other type is an empty one.  The records
 * carry the filter's type, queue and enabled, the key as the address, priority 0 and the row's name,
 * executable and context.
 *
 * Returns 0, or -1 after logging "Incorrect recipient address for global handler `%s', expected
 * [NULL|%s|%s]", before anything is opened; "Unable to save the data from SELECT query" (no memory), followed
 * by "Unable to get data from mail handlers database: %s" (detail), or that alone.
 */
[[nodiscard]] int handlers_db_select_to_run(StoreConnection *connection, HandlerList *list,
                                            const HandlerRecord *filter);

/*
 * All handlers of an address (`exact`) or of the domain that is the address's part after its first "@", or
 * all of it without one: of that domain's mailboxes and of the domain itself, and of no other that merely
 * contains its text.  The exact form compares the row's part after the "@", too, so that it finds bare
 * domains, "all" and "all-recipients", but never a mailbox's address.
 *
 * Returns 0, or -1 after logging "Unable to save the data from SELECT query" (no memory for a row; the others
 * are read all the same) or "Unable to select data from handlers database: %s" (detail).
 */
[[nodiscard]] int handlers_db_select_by_address(StoreConnection *connection, HandlerList *list,
                                                const char *address, bool exact);

/* handlers_db_select_by_address in its domain form. */
[[nodiscard]] int handlers_db_select_by_domain(StoreConnection *connection, HandlerList *list,
                                               const char *address);

/*
 * Gives a mailbox, or a whole domain, the handlers of another one, in one transaction; handlers of the
 * target with the same key are replaced, the copies are not protected, and enabled when the original's
 * column is exactly 1.
 * - both mail names: from source_mail@source_domain to target_mail@target_domain;
 * - source_mail only: to source_mail@target_domain;
 * - no source_mail: every handler whose address contains source_domain anywhere, also as a part of a longer
 *   domain, to the same local part at target_domain; a handler without "@" only if its address is
 *   source_domain itself, to target_domain.
 *
 * Returns 0, also when there is nothing to copy, or -1 after logging "Unable to select data from handlers
 * database: %s" (detail), "Unable to save the data from SELECT query" (no memory) or, after the driver's
 * message, "Unable to add records into handlers database".  An address of more than 501 bytes is fatal: the
 * process ends through report_error with exit code 1.
 */
[[nodiscard]] int handlers_db_copy(StoreConnection *connection, const char *source_mail,
                                   const char *source_domain, const char *target_mail,
                                   const char *target_domain);

/*
 * Runs one statement with `parameter` as its one text parameter.
 *
 * Returns 0, or -1 after "Unable to bind parameter param to query: %s" (detail), which closes the connection,
 * or "Unable to execute do action on handlers database: %s" (detail), which leaves it open.
 */
[[nodiscard]] int handlers_db_exec_with_param(StoreConnection *connection, const char *sql,
                                              const char *parameter);

/* Deletes every handler of `address`, compared exactly: one with capitals matches nothing and gives 0. */
[[nodiscard]] int handlers_db_remove_by_address(StoreConnection *connection, const char *address);

/* Deletes the handlers called `name` of every address, queue and type. */
[[nodiscard]] int handlers_db_remove_by_name(StoreConnection *connection, const char *name);

/*
 * Deletes every handler of a domain, or of the domain of a mailbox's address (handlers_db_select_by_domain),
 * in one transaction.  Without a caller's connection the handlers are read over a read-only one of its own,
 * so that a missing store is not created.
 *
 * Returns 0, also when there were none, or -1: after "Get handlers list" when the read failed, with its own
 * message before; after "Unable to add records into handlers database" when the driver failed, with its
 * message before; after the message for a store that could not be opened for the read, alone.
 */
[[nodiscard]] int handlers_db_remove_domain(StoreConnection *connection, const char *domain);

} // namespace kolmo
