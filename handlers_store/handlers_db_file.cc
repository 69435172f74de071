#include "handlers_store/handlers_db.h"

#include <cerrno>
#include <cstring>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/log.h"
#include "handlers_store/sqlite_file.h"

namespace kolmo
{

namespace
{

const char label[] = "mail handlers";

/* No IF NOT EXISTS: on an existing store the script fails and, never committed, changes nothing.  The
   constraint's misspelt name: docs/compatibility.md. */
const char schema_sql[] =
    "BEGIN TRANSACTION;"
    "CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, priority INTEGER, "
    "name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL, executable VARCHAR(2048) NOT NULL, "
    "context VARCHAR(2048) NOT NULL, protected BOOLEAN NOT NULL default 0, "
    "CONSTRAINT uniq_entries_constaraint PRIMARY KEY (queue, type, name, address));"
    "CREATE INDEX idx1 ON handlers(queue, type, enabled, address);"
    "CREATE INDEX idx2 ON handlers(queue, type, enabled, address, priority);"
    "CREATE INDEX idx3 ON handlers(name, queue, type, address);"
    "CREATE INDEX idx4 ON handlers(name, queue, type);"
    "COMMIT;";

} // namespace

const char *handlers_db_path = "/var/lib/kolmo/mail/handlers/handlers.db";

void handlers_db_set_path(const char *path)
{
    handlers_db_path = path;
}

int handlers_db_create()
{
    if (handlers_db_create_schema() != 0)
        return -1; /* and nothing is removed: what lies there may be another process's store */
    if (handlers_db_set_permissions(handlers_db_path) != 0) {
        /* No store with a wrong owner or mode is left behind. */
        (void)unlink(handlers_db_path);
        return -1;
    }
    return 0;
}

int handlers_db_create_schema()
{
    if (db_make_parent_dirs(handlers_db_path, label) != 0) {
        log_message(LOG_CRIT, "Unable to create directory for mail handlers database for(%s): %s",
                    handlers_db_path, std::strerror(errno));
        return -1;
    }
    return sqlite_db_recreate(handlers_db_path, schema_sql, label);
}

int handlers_db_set_permissions(const char *path)
{
    errno = 0; /* getgrnam(3) sets it for a failed look-up, not for an absent group */

    const group *const popuser = getgrnam("popuser");

    if (popuser == nullptr) {
        /* "uid" of a group: docs/compatibility.md. */
        log_message(LOG_CRIT, "Unable to get mail handlers group uid: %s", std::strerror(errno));
        return -1;
    }
    if (chown(path, 0, popuser->gr_gid) != 0) {
        log_message(LOG_CRIT, "Unable to set owner on %s: %s", path, std::strerror(errno));
        return -1;
    }
    if (chmod(path, 0640) != 0) {
        log_message(LOG_CRIT, "Unable to set permissions on %s: %s", path, std::strerror(errno));
        return -1;
    }
    return 0;
}

} // namespace kolmo
