#include "handlers_store/sqlite_file.h"

#include <cerrno>
#include <cstring>

#include <libgen.h>
#include <sys/stat.h>

#include "common/log.h"
#include "common/owned.h"
#include "responder_store/kit/store_op.h"

namespace kolmo
{

namespace
{

int make_dir(const char *directory)
{
    struct stat status;

    if (stat(directory, &status) != 0)
        return errno == ENOENT ? mkdir(directory, 0755) : -1;
    if (S_ISDIR(status.st_mode))
        return 0;
    errno = ENOTDIR;
    return -1;
}

Ending run_script(StoreOp &op, const char *script, const char *label)
{
    SqliteText error;
    int rc;

    if (op.exec(script, &rc, &error) != Ending::done || rc == SQLITE_OK)
        return op.ending();
    if (error != nullptr)
        log_failure("Unable to re-create %s database: %s", label, error.get());
    else
        log_failure("Unable to re-create %s database", label);
    return Ending::failed;
}

} // namespace

int sqlite_db_recreate(const char *path, const char *script, const char *label)
{
    return to_result(with_store(nullptr, path, OpenMode::read_write,
                                [&](StoreOp &op) { return run_script(op, script, label); }));
}

int make_dirs(const char *directory)
{
    const OwnedText prefix(strdup(directory));

    if (prefix == nullptr)
        return -1;
    for (char *at = prefix.get(); *at != '\0';) {
        at += std::strspn(at, "/");
        at += std::strcspn(at, "/");

        const char separator = *at;

        *at = '\0';
        if (make_dir(prefix.get()) != 0)
            return -1;
        *at = separator;
    }
    return 0;
}

int db_make_parent_dirs(const char *path, const char *label)
{
    const OwnedText copy(strdup(path));

    if (copy == nullptr) {
        log_message(LOG_CRIT, "Memory allocation error");
        errno = ENOMEM;
        return -1;
    }

    const char *const directory = dirname(copy.get());

    if (directory == nullptr) {
        const int error = errno;

        log_message(LOG_CRIT, "Unable to get dirname for %s database (%s): %s (%d)", label, path,
                    std::strerror(error), error);
        errno = error;
        return -1;
    }
    if (make_dirs(directory) != 0) {
        const int error = errno;

        log_message(LOG_CRIT, "Unable to create directories for %s database (%s): %s (%d)", label, directory,
                    std::strerror(error), error);
        errno = error; /* logging may have changed it, and the caller reports it again */
        return -1;
    }
    return 0;
}

} // namespace kolmo
