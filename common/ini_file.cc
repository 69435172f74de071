#include "common/ini_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <strings.h>
#include <sys/stat.h>

#include "common/owned.h"
#include "common/text.h"

namespace kolmo
{

namespace
{

[[nodiscard]] bool is_regular_file(const char *path)
{
    struct stat status;

    return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

[[nodiscard]] bool is_header(const char *line, std::size_t length)
{
    return length >= 3 && line[0] == '[' && line[length - 1] == ']';
}

/* header stands between its brackets. */
[[nodiscard]] bool header_names(const char *header, std::size_t length, const char *section)
{
    return std::strlen(section) == length - 2 && std::memcmp(header + 1, section, length - 2) == 0;
}

/* The value in an entry of that key, within entry, which is taken apart; null for any other line. */
[[nodiscard]] const char *value_of(char *entry, const char *key)
{
    char *equals = std::strchr(entry, '=');

    if (equals == nullptr)
        return nullptr;
    *equals = '\0';
    (void)trim_ini_line(entry);
    if (std::strcmp(entry, key) != 0)
        return nullptr;
    (void)trim_ini_line(equals + 1);
    return equals + 1;
}

[[nodiscard]] OwnedText find_value(std::FILE *file, const char *section, const char *key)
{
    OwnedText line;
    std::size_t size = 0;
    bool in_section = false;

    while (read_line(file, line, size)) {
        const std::size_t length = trim_ini_line(line.get());

        if (is_header(line.get(), length)) {
            in_section = header_names(line.get(), length, section);
        } else if (in_section) {
            const char *value = value_of(line.get(), key);

            if (value != nullptr)
                return OwnedText(strdup(value));
        }
    }
    return nullptr;
}

} // namespace

char *ini_get_value(const char *path, const char *section, const char *key)
{
    errno = 0;
    if (!is_regular_file(path))
        return nullptr;

    const OwnedFile file(std::fopen(path, "re"));
    if (file == nullptr) {
        (void)std::fprintf(stderr, "Failed to open %s: %s", path, std::strerror(errno));
        return nullptr;
    }
    return find_value(file.get(), section, key).release();
}

int ini_get_bool(const char *path, const char *section, const char *key, int default_value)
{
    const OwnedText value(ini_get_value(path, section, key));

    if (value == nullptr || value[0] == '\0')
        return default_value;
    for (const char *yes : {"on", "true", "yes", "1"})
        if (strcasecmp(value.get(), yes) == 0)
            return 1;
    return 0;
}

std::size_t trim_ini_line(char *line)
{
    const char *start = line;

    while (is_space(*start))
        start++;

    std::size_t length = std::strcspn(start, ";");
    while (length > 0 && is_space(start[length - 1]))
        length--;
    std::memmove(line, start, length);
    line[length] = '\0';
    return length;
}

} // namespace kolmo
