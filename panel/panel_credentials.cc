#include "panel/panel_credentials.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>

#include <sys/stat.h>

#include "common/ini_file.h"
#include "common/text.h"

namespace kolmo
{

namespace
{

OwnedText dsn_value(const char *key)
{
    return OwnedText(ini_get_value(panel_dsn_path, "kolmo", key));
}

void set_if_missing(OwnedText *setting, const char *value)
{
    if (*setting == nullptr)
        setting->reset(xasprintf("%s", value));
}

/* Text after the digits and the range are not looked at: the server is the one to refuse a wrong port. */
unsigned int to_port(const char *text)
{
    return static_cast<unsigned int>(std::strtol(text, nullptr, 10));
}

/*
 * The first line into a buffer that the whole file fits in; false when there is none.  fgets calls it a
 * success to read nothing into a buffer of one byte, so the empty file is told by the size.
 */
bool read_first_line(std::FILE *file, char *line, std::size_t size)
{
    if (size <= 1 ||
        std::fgets(line, static_cast<int>(std::min<std::size_t>(size, INT_MAX)), file) == nullptr)
        return false;
    line[std::strcspn(line, "\n")] = '\0';
    return true;
}

OwnedSecret read_admin_password(char *error_buffer, std::size_t buffer_size)
{
    const OwnedFile file(std::fopen(panel_shadow_path, "rt"));
    if (file == nullptr) {
        (void)std::snprintf(error_buffer, buffer_size, "Unable to open admin password file: %s",
                            std::strerror(errno));
        return nullptr;
    }
    /* Unbuffered, or a copy of the password would stay behind in the stream's freed buffer. */
    (void)std::setvbuf(file.get(), nullptr, _IONBF, 0);

    struct stat status;
    if (stat(panel_shadow_path, &status) != 0) {
        (void)std::snprintf(error_buffer, buffer_size, "Unable to get admin password file stat: %s",
                            std::strerror(errno));
        return nullptr;
    }
    const std::size_t size = static_cast<std::size_t>(status.st_size) + 1;
    OwnedSecret line(static_cast<char *>(std::calloc(size, 1)));
    if (line == nullptr) {
        (void)std::snprintf(error_buffer, buffer_size, "Unable to allocate memory for password");
        return nullptr;
    }
    if (!read_first_line(file.get(), line.get(), size)) {
        (void)std::snprintf(error_buffer, buffer_size, "Unable to read admin password file: %s",
                            std::strerror(errno));
        return nullptr;
    }
    return line;
}

} // namespace

const char *panel_dsn_path = "/etc/qsx/private/dsn.ini";
const char *panel_shadow_path = "/etc/qsx/.qsx.shadow";

int panel_read_credentials(PanelCredentials *credentials, char *error_buffer, std::size_t buffer_size)
{
    credentials->host = dsn_value("host");
    const OwnedText port = dsn_value("port");
    credentials->user = dsn_value("username");
    credentials->password.reset(dsn_value("password").release());
    credentials->database = dsn_value("dbname");

    set_if_missing(&credentials->host, "localhost");
    set_if_missing(&credentials->user, "admin");
    credentials->port = port != nullptr ? to_port(port.get()) : 0;
    if (credentials->password == nullptr)
        credentials->password = read_admin_password(error_buffer, buffer_size);
    if (credentials->password == nullptr)
        return -1;
    set_if_missing(&credentials->database, "qsx");
    return 0;
}

} // namespace kolmo
