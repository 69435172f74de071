#include "panel/panel_conf.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <span>

#include "common/log.h"
#include "common/owned.h"
#include "common/text.h"

namespace kolmo
{

namespace
{

constexpr char default_conf_path[] = "/etc/qsx/qsx.conf";

constexpr std::size_t first_capacity = 20;
constexpr std::size_t capacity_step = 20;

struct KnownVariable {
    const char *name;
    const char *value;
};

/* Indexed by QsxConfVar and closed by an empty entry. */
constexpr KnownVariable known_variables[] = {
#define QSX_CONF_VAR(name, value) {#name, value},
#include "panel/panel_conf_vars.inc"
#undef QSX_CONF_VAR
    {nullptr, nullptr},
};

constexpr std::size_t known_variable_count = std::size(known_variables) - 1;
static_assert(known_variable_count == _MAX_POSSIBLE_QSX_CONF_VAR_NAME + 1);

/* The loaded file, null until then, and what conf_get found in it; kept for the rest of the process. */
QsxConfStore *loaded_store;
const char *cached_values[known_variable_count];

using OwnedStore = std::unique_ptr<QsxConfStore, Release<conf_store_free>>;

bool is_name_character(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

char *skip_space(char *text)
{
    while (is_space(*text))
        text++;
    return text;
}

bool is_comment_or_end(const char *text)
{
    return *text == '#' || *text == '\0';
}

std::span<QsxConfEntry> entries_of(const QsxConfStore *store)
{
    return {store->entries, store->count};
}

bool has_lower_name(const QsxConfEntry &left, const QsxConfEntry &right)
{
    return std::strcmp(left.name, right.name) < 0;
}

/* The variable by linear search, null when the store does not have it. */
QsxConfEntry *find_unsorted(const QsxConfStore *store, const char *name)
{
    const std::span<QsxConfEntry> entries = entries_of(store);
    const auto found = std::find_if(entries.begin(), entries.end(), [name](const QsxConfEntry &entry) {
        return std::strcmp(entry.name, name) == 0;
    });

    return found != entries.end() ? &*found : nullptr;
}

QsxConfEntry *find_sorted(const QsxConfStore *store, const char *name)
{
    const std::span<QsxConfEntry> entries = entries_of(store);
    const auto found = std::lower_bound(
        entries.begin(), entries.end(), name,
        [](const QsxConfEntry &entry, const char *wanted) { return std::strcmp(entry.name, wanted) < 0; });

    return found != entries.end() && std::strcmp(found->name, name) == 0 ? &*found : nullptr;
}

int make_first_slots(QsxConfStore *store)
{
    store->entries = static_cast<QsxConfEntry *>(std::calloc(first_capacity, sizeof *store->entries));
    if (store->entries == nullptr)
        return -1;
    store->capacity = first_capacity;
    store->count = 0;
    store->sorted = true;
    return 0;
}

/* The capacity after the present one and its size in bytes; false when a number would overflow. */
bool next_capacity(const QsxConfStore *store, std::size_t *capacity, std::size_t *bytes)
{
    if (__builtin_mul_overflow(store->capacity, std::size_t{2}, capacity))
        return false;
    if (*capacity <= store->count && __builtin_add_overflow(store->count, capacity_step, capacity))
        return false;
    return !__builtin_mul_overflow(*capacity, sizeof *store->entries, bytes);
}

int grow_slots(QsxConfStore *store)
{
    std::size_t capacity;
    std::size_t bytes;
    void *grown = nullptr;

    if (next_capacity(store, &capacity, &bytes))
        grown = std::realloc(store->entries, bytes);
    if (grown == nullptr) {
        log_message(CONF_READER_PRIORITY, "Unable to read configuration: %s", std::strerror(ENOMEM));
        errno = ENOMEM;
        return -1;
    }
    store->entries = static_cast<QsxConfEntry *>(grown);
    std::fill(store->entries + store->count, store->entries + capacity, QsxConfEntry{});
    store->capacity = capacity;
    return 0;
}

/*
 * Where the value that starts at `value` and could run to `end` is cut: of a run of white space at the end
 * the last character goes when the run is odd (docs/compatibility.md).
 */
char *value_end(char *value, char *end)
{
    char *marker = nullptr;

    for (char *p = value; p < end; p++) {
        if (is_space(*p))
            marker = marker == nullptr ? p : nullptr;
        else
            marker = nullptr;
    }
    return marker != nullptr ? marker : end;
}

/* Takes one line of the file, which it cuts into name and value.  A line that defines nothing gives 0. */
int parse_line(char *line, QsxConfStore *store)
{
    char *const name = skip_space(line);
    if (is_comment_or_end(name))
        return 0;

    char *name_end = name;
    while (is_name_character(*name_end))
        name_end++;
    if (!is_space(*name_end)) { /* a line that starts without a name ends up here too */
        log_message(CONF_READER_PRIORITY,
                    "Invalid variable definition %s\nExpected a space after variable name\n", name);
        return 0;
    }

    char *const value = skip_space(name_end);
    if (is_comment_or_end(value)) {
        log_message(CONF_READER_PRIORITY, "Invalid variable definition %s\nExpected a value", name);
        return 0;
    }

    *name_end = '\0';
    *value_end(value, value + std::strcspn(value, "#")) = '\0';
    return conf_store_set(store, name, value);
}

int parse_lines(std::FILE *stream, QsxConfStore *store)
{
    OwnedText line;
    std::size_t size = 0;
    int result = 0;

    while (result == 0 && read_line(stream, line, size))
        result = parse_line(line.get(), store);
    return result;
}

} // namespace

const char *panel_conf_path = default_conf_path;

const char *conf_get(QsxConfVar var)
{
    const char *const value = conf_get_from_file(var);

    return value != nullptr ? value : known_variables[var].value;
}

const char *conf_get_from_file(QsxConfVar var)
{
    /* Only what was found is remembered: a variable that is missing now may be there at the next try. */
    if (cached_values[var] == nullptr)
        cached_values[var] = conf_file_lookup(known_variables[var].name);
    return cached_values[var];
}

const char *conf_get_by_name(const char *name)
{
    for (int var = _MIN_POSSIBLE_QSX_CONF_VAR_NAME; var < _MAX_POSSIBLE_QSX_CONF_VAR_NAME; var++) {
        if (std::strcmp(known_variables[var].name, name) == 0)
            return conf_get(static_cast<QsxConfVar>(var));
    }
    log_message(LOG_ERR, "variable '%s' was found neither in %s, nor in compile-time defaults", name,
                default_conf_path);
    return nullptr;
}

const char *conf_file_lookup(const char *name)
{
    return conf_load() == 0 ? conf_store_find(loaded_store, name) : nullptr;
}

int conf_load()
{
    if (loaded_store != nullptr)
        return 0;

    OwnedStore store(static_cast<QsxConfStore *>(std::calloc(1, sizeof(QsxConfStore))));
    if (store == nullptr) {
        log_message(LOG_ERR, "Not enough memory to allocate Kolmo runtime configuration structure");
        return -1;
    }
    if (conf_parse_file(panel_conf_path, store.get()) != 0)
        return -1;
    loaded_store = store.release();
    return 0;
}

int conf_parse_file(const char *path, QsxConfStore *store)
{
    if (conf_store_reserve(store) != 0)
        return -1;

    std::FILE *const stream = std::fopen(path, "rt");
    if (stream == nullptr) {
        const KeepErrno errno_kept;
        log_message(CONF_READER_PRIORITY, "unable to open configuration file %s: %s\n", path,
                    std::strerror(errno_kept.get()));
        return -1;
    }
    return conf_parse_stream(stream, store);
}

int conf_parse_stream(std::FILE *stream, QsxConfStore *store)
{
    OwnedFile file(stream);

    if (parse_lines(stream, store) != 0)
        return -1;

    const KeepErrno kept;
    const bool was_read_whole = std::feof(stream) != 0; /* which a read error is not */
    file.reset();
    conf_store_sort(store);
    if (was_read_whole)
        return 0;
    log_message(CONF_READER_PRIORITY, "Unable to read configuration file: %s", std::strerror(kept.get()));
    return -1;
}

int conf_store_reserve(QsxConfStore *store)
{
    if (store->entries == nullptr)
        return make_first_slots(store);
    return store->count < store->capacity ? 0 : grow_slots(store);
}

int conf_store_set(QsxConfStore *store, const char *name, const char *value)
{
    if (conf_store_reserve(store) != 0)
        return -1;

    OwnedText name_copy(strdup(name));
    OwnedText value_copy(strdup(value));
    if (name_copy == nullptr || value_copy == nullptr) {
        log_message(CONF_READER_PRIORITY, "Unable to form configuration: %s", std::strerror(ENOMEM));
        errno = ENOMEM;
        return -1;
    }

    QsxConfEntry *const known = find_unsorted(store, name);
    if (known != nullptr) {
        std::free(known->value);
        known->value = value_copy.release();
        return 0;
    }
    store->entries[store->count++] = {name_copy.release(), value_copy.release()};
    store->sorted = false;
    return 0;
}

void conf_store_sort(QsxConfStore *store)
{
    if (store->sorted)
        return;
    const std::span<QsxConfEntry> entries = entries_of(store);
    std::sort(entries.begin(), entries.end(), has_lower_name);
    store->sorted = true;
}

const char *conf_store_find(const QsxConfStore *store, const char *name)
{
    const QsxConfEntry *const entry = store->sorted ? find_sorted(store, name) : find_unsorted(store, name);

    return entry != nullptr ? entry->value : nullptr;
}

void conf_store_free(QsxConfStore *store)
{
    if (store == nullptr)
        return;
    for (const QsxConfEntry &entry : std::span<QsxConfEntry>{store->entries, store->capacity}) {
        std::free(entry.name);
        std::free(entry.value);
    }
    std::free(store->entries);
    std::free(store);
}

} // namespace kolmo
