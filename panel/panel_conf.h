/*
 * panel_conf: the panel's configuration file, with compiled-in values for what it does not define.
 *
 * The file holds one variable per line: a name of letters, digits and '_', white space, a value; '#' starts a
 * comment anywhere.  Of a run of white space at the value's end, newline included, the last character goes
 * when its length is odd, none when it is even.  The file is read once per process; one that cannot be loaded
 * is tried again, and complained about again, by every further lookup.
 *
 * What the reader logs goes out at CONF_READER_PRIORITY unless a function says otherwise:
 *   "unable to open configuration file %s: %s\n"  path, system error text
 *   "Unable to read configuration file: %s"       system error text
 *   "Unable to read configuration: %s", "Unable to form configuration: %s"  no memory
 *   "Invalid variable definition %s\nExpected a space after variable name\n", "Invalid variable definition
 *   %s\nExpected a value"                         the line
 * and at LOG_ERR:
 *   "Not enough memory to allocate Kolmo runtime configuration structure"
 *   "variable '%s' was found neither in %s, nor in compile-time defaults"  name, the file
 *
 * A lookup leaves the errno of a failed loading (ENOENT without a file) behind, even if it has a value.
 */
#pragma once

#include <cstddef>
#include <cstdio>

#include <syslog.h>

namespace kolmo
{

/*
 * A warning of the user facility, whatever the log's own is.  The console sink takes the sum, 12, for a level
 * that it never prints: without the file it stays quiet.
 */
constexpr int CONF_READER_PRIORITY = LOG_USER | LOG_WARNING;

/* The known variables, numbered from 0; the members are named as the file names them. */
enum QsxConfVar {
#define QSX_CONF_VAR(name, value) name,
#include "panel/panel_conf_vars.inc"
#undef QSX_CONF_VAR
};

/* The file that conf_load reads, "/etc/qsx/qsx.conf" unless pointed elsewhere; looked at by every load. */
extern const char *panel_conf_path;

/* One variable of the file; both texts are on the heap and the store's. */
struct QsxConfEntry {
    char *name;
    char *value;
};

/* The variables of one file.  All zero is an empty store that nothing was reserved for yet. */
struct QsxConfStore {
    QsxConfEntry *entries; /* `capacity` slots, the ones from `count` on null */
    std::size_t capacity;
    std::size_t count;
    bool sorted; /* ascending by strcmp of the name */
};

/*
 * The value of a known variable: the file's, or else the compiled-in one.  Never null; like every value of a
 * lookup it lasts as long as the process.
 */
[[nodiscard]] const char *conf_get(QsxConfVar var);

/* The same without the compiled-in values: null when the file does not define var or cannot be loaded. */
[[nodiscard]] const char *conf_get_from_file(QsxConfVar var);

/*
 * conf_get for a variable given by its name; null, logged at LOG_ERR, for a name that is no known variable's,
 * even if the file has it.  The upper range marker counts as unknown, the lower one does not.
 */
[[nodiscard]] const char *conf_get_by_name(const char *name);

/* The value of any variable that the file defines, known or not; else, or without the file, null. */
[[nodiscard]] const char *conf_file_lookup(const char *name);

/* Load panel_conf_path, unless a file is loaded already.  0 when one is; -1 after logging why not. */
[[nodiscard]] int conf_load();

/*
 * Add the variables of a file to a store, and sort it.
 *
 * A line that defines nothing is skipped: comments and blank lines silently, a name that is not
 * followed by white space or by a value with a log line.  A later line overrides an earlier one.
 * Returns 0; -1 with errno of the failure when the file cannot be opened or read or memory runs out,
 * which has been logged (but for the store's very first allocation) and leaves what was read so far
 * in the store.
 */
[[nodiscard]] int conf_parse_file(const char *path, QsxConfStore *store);

/* The part of conf_parse_file that follows opening.  Closes the stream in any case. */
[[nodiscard]] int conf_parse_stream(std::FILE *stream, QsxConfStore *store);

/*
 * Make room for one more variable.
 *
 * Returns 0; -1 with errno ENOMEM when there is none to be had, logged when the array should have
 * grown, silent when it should have been made.  The store is as it was then.
 */
[[nodiscard]] int conf_store_reserve(QsxConfStore *store);

/*
 * Put a variable into a store, copying both texts; a value that it had is replaced and freed.
 * Returns 0, or -1 as conf_store_reserve, or with errno ENOMEM, logged, when there is no memory for the
 * copies.
 */
[[nodiscard]] int conf_store_set(QsxConfStore *store, const char *name, const char *value);

/* Bring the variables into ascending order of their names, if they are not. */
void conf_store_sort(QsxConfStore *store);

/* The value of a variable, the store's to keep; null when the store does not have it. */
[[nodiscard]] const char *conf_store_find(const QsxConfStore *store, const char *name);

/* Free a store that came from malloc or its relatives, with all its texts; null is ignored. */
void conf_store_free(QsxConfStore *store);

} // namespace kolmo
