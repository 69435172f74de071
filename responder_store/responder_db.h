/*
 * responder_db: the responder store, from which the autoresponder takes what it answers mail with.
 *
 * An SQLite file with three tables: `autoresponder` (a row for each mailbox that answers), `attachments`
 * (the files that go out with a mailbox's replies) and `extra_headers` (the header lines of every reply).
 * Another utility of the panel creates it and declares its keys; here rows are only written and removed.
 *
 * The operations go by what responder_store/kit/store_connection.h says of all operations.  Each is one
 * transaction, but for the removal of the extra headers, which is one statement.  One more message is theirs:
 *     "Unable to bind parameter NAME: %s"  detail
 *
 * The mailname, the key of the two tables, is the mailbox, "@" and the domain, lower-cased byte by byte by
 * the C library's tolower.
 */
#pragma once

#include "responder_store/kit/store_connection.h"
#include "responder_store/responder_record.h"

namespace kolmo
{

/* Where the store lies; read at every open, so that an assignment takes effect for the next one. */
extern const char *responder_db_path;

/*
 * Adds or replaces the autoresponder of mailbox@domain; the record's mail_name, "@" and the domain,
 * lower-cased, become its owner (column real_owner).  The record stays the caller's.
 *
 * Returns 0 once the row is committed, -1 after a failure.  A row that the store refuses is logged as
 * "Unable to add/update autoresponder (%s): %s" (mailname, detail) and gives -1 with the connection and
 * its transaction still open.
 */
[[nodiscard]] int responder_db_add_autoresponder(StoreConnection *connection, const char *mailbox,
                                                 const char *domain, const ResponderRecord *record);

/*
 * Deletes the autoresponder of mailbox@domain; its attachments stay.
 *
 * Returns 0 once the transaction has ended, also when there was no such row or the store refused the
 * deletion, which is logged as "Unable to add autoresponder data (%s): %s" (mailname, detail).
 */
[[nodiscard]] int responder_db_remove_autoresponder(StoreConnection *connection, const char *mailbox,
                                                    const char *domain);

/*
 * Adds the `count` file names for mailbox@domain, in order, in one transaction.  A count of 0 begins no
 * transaction, a negative one an empty one.
 *
 * Returns 0 once the transaction has ended.  A row that the store refuses costs that file only: it is
 * logged as "Unable to add autoresponder attachment (%s): %s" (mailname, detail) and the result stays 0.
 */
[[nodiscard]] int responder_db_add_attachments(StoreConnection *connection, const char *mailbox,
                                               const char *domain, const char *const *filenames, int count);

/*
 * Deletes all attachments of mailbox@domain; its autoresponder stays.
 *
 * Returns 0 once the transaction has ended, also when there was none or the store refused the deletion,
 * which is logged as "Unable to add autoresponder attachment (%s): %s" (mailname, detail).
 */
[[nodiscard]] int responder_db_remove_attachments(StoreConnection *connection, const char *mailbox,
                                                  const char *domain);

/*
 * Adds `count` headers, names[i] with values[i], in order, in one transaction; they apply to all replies.
 * The texts are stored as they are.  A count of 0 begins no transaction, a negative one an empty one.
 *
 * Returns 0 once the transaction has ended.  A row that the store refuses costs that header only: it is
 * logged as "Unable to add autoresponder extra headers: %s" (detail) and the result stays 0.
 */
[[nodiscard]] int responder_db_add_extra_headers(StoreConnection *connection, const char *const *names,
                                                 const char *const *values, int count);

/*
 * Deletes all extra headers, outside any transaction.
 *
 * Returns SQLite's own result code: 0, or that of the failure, which is logged as
 * "Unable to remove autoresponder extra headers: %s" (detail) and leaves the caller's connection open.
 * -1 when the store could not be opened or a pause failed.
 */
[[nodiscard]] int responder_db_remove_extra_headers(StoreConnection *connection);

} // namespace kolmo
