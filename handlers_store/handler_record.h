/*
 * handler_record: one mail handler, and lists of them.
 *
 * A handler is a program that the mail server runs for the mail of a queue, a type and a recipient.
 * Records are built on the stack with borrowed texts; a list always makes its own deep copies.
 *
 * Everything here logs, at priority 3, where it says so, and nothing else.
 */
#pragma once

#include <cstdint>

namespace kolmo
{

/* The type of a handler for no single recipient: its address is "all" or "all-recipients". */
constexpr std::int32_t HANDLER_TYPE_GLOBAL = 4;

/*
 * The texts may be null.  A record from handler_record_new, handler_record_clone or a list owns its texts
 * (memory from malloc); a record on the stack may point at texts of anybody's, literals too.
 */
struct HandlerRecord {
    std::int32_t priority; /* handlers of one recipient run highest first */
    std::int32_t type;     /* codes of the callers' choice; the store knows HANDLER_TYPE_GLOBAL only, */
    std::int32_t queue;    /* and the autoresponder's handlers have type 1 and queue 2 */
    const char *name;
    const char *address; /* recipient: a mailbox's address, a bare domain, or a global handler's word */
    const char *executable;
    const char *context;     /* argument for the program; stored as "none" when null */
    bool protect_on_restore; /* column `protected`, which is no name for a field in C++ */
    bool enabled;
};

/*
 * Sets priority 0, type 5 and queue 5 (codes that no caller uses, so that a forgotten one shows), no texts,
 * neither protected nor enabled.  A null record is ignored.
 */
void handler_record_init(HandlerRecord *record);

/*
 * Allocates a record with the values of handler_record_init; release it with handler_record_free.
 * Null when memory ran out, after logging "System error: %s" (the system's text).
 */
[[nodiscard]] HandlerRecord *handler_record_new();

/*
 * A deep copy of `source`; release it with handler_record_free.  A text that cannot be copied is null in
 * the copy, without a message: who deletes by copies looks first, as a null address means all of them.  Null
 * when there is no memory for the record, logged as by handler_record_new, or when `source` is null.
 */
[[nodiscard]] HandlerRecord *handler_record_clone(const HandlerRecord *source);

/* Frees the texts of a record that owns them and leaves the dead pointers in it.  Null is ignored. */
void handler_record_free_fields(HandlerRecord *record);

/* Frees the texts and the record.  Null is ignored. */
void handler_record_free(HandlerRecord *record);

/* One entry of a list. */
struct HandlerNode {
    HandlerRecord *record; /* the list's own copy */
    HandlerNode *next;
    HandlerNode **back_link; /* the pointer that leads here: the list's head or the previous node's next */
};

/*
 * New entries are linked in at the head: a walk from the head meets them in the reverse of the order in
 * which they came.  That order is relied upon: rows read highest priority first become a list that runs
 * lowest first.
 */
struct HandlerList {
    HandlerNode *head; /* null when empty */
};

/* Makes the list empty, whatever it held (see handler_list_free).  Returns 0. */
int handler_list_init(HandlerList *list);

/*
 * Adds a deep copy of `record` at the head; the caller's record stays the caller's.
 *
 * Returns 0, or -1 when memory ran out, after logging "System error: %s" (the system's text) for the entry
 * itself or, for its copy of the record, that and then "Unable to clone handlers data record"; or -1 after
 * the latter alone when `record` is null.
 */
[[nodiscard]] int handler_list_append(HandlerList *list, const HandlerRecord *record);

/*
 * Frees all entries and their records.  The head is left as it was: initialise the list before it is used
 * again.  Null is ignored.
 */
void handler_list_free(HandlerList *list);

} // namespace kolmo
