#include "verify/database_source.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

#include "common/ini_file.h"
#include "common/owned.h"
#include "panel/panel_conf.h"
#include "panel/panel_credentials.h"

namespace kolmo
{

namespace
{

/* A file that is not there is no trouble: defaults stand in for it. */
int check_readable(const char *path, const TroubleSink &trouble)
{
    struct stat status;
    const bool is_missing = ::lstat(path, &status) != 0 && errno == ENOENT;
    const Fd file(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));

    if (is_missing)
        return 0;
    if (!file.is_open()) {
        trouble(std::string(path) + " is there, but cannot be read: " + std::strerror(errno));
        return -1;
    }
    if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        trouble(std::string(path) + " is there, but is no file");
        return -1;
    }
    return 0;
}

/* Of a setting with a file, where it has one. */
std::string origin(const char *what, const char *path)
{
    return std::string(what) + (path != nullptr ? " from " : " by default") + (path != nullptr ? path : "");
}

std::string take(const char *key, const char *what, const char *fallback, DatabaseSource *source)
{
    const OwnedText value(ini_get_value(panel_dsn_path, "kolmo", key));

    source->origins.push_back(origin(what, value != nullptr ? panel_dsn_path : nullptr));
    return value != nullptr ? value.get() : fallback;
}

} // namespace

int read_database_source(DatabaseSource *source, const TroubleSink &trouble)
{
    if (check_readable(panel_dsn_path, trouble) != 0 || check_readable(panel_conf_path, trouble) != 0)
        return -1;
    source->host = take("host", "host", "localhost", source);
    source->user = take("username", "user", "admin", source);
    source->name = take("dbname", "database", "qsx", source);

    const OwnedSecret password(ini_get_value(panel_dsn_path, "kolmo", "password"));

    source->origins.push_back(origin("password", password != nullptr ? panel_dsn_path : panel_shadow_path));
    if (!source->host.empty() && source->host != "localhost") {
        source->door = "port " + take("port", "port", "by default", source);
        return 0;
    }
    source->door = conf_get(MYSQL_SOCKET);
    source->origins.push_back(
        origin("socket", conf_get_from_file(MYSQL_SOCKET) != nullptr ? panel_conf_path : nullptr));
    return 0;
}

PanelConnection connect_panel(const TroubleSink &trouble)
{
    char reason[4097] = "the database's client gives no reason";
    PanelConnection panel(panel_db_connect_ex(reason, sizeof reason));

    if (panel == nullptr)
        trouble(reason);
    return panel;
}

} // namespace kolmo
