/*
 * panel_credentials: who connects to the panel database, from the files that the panel keeps.
 *
 * The DSN file may give every value; one that it lacks has a default, but for the password, which is
 * then the first line of the administrator's password file.
 */
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <malloc.h>

#include "common/owned.h"

namespace kolmo
{

/* The two files, "/etc/qsx/private/dsn.ini" and "/etc/qsx/.qsx.shadow" unless pointed elsewhere. */
extern const char *panel_dsn_path;
extern const char *panel_shadow_path;

/* Wipes the whole allocation first.  What the reader of the DSN file had in its buffers is not this one's. */
struct WipeMemory {
    void operator()(char *secret) const noexcept
    {
        const KeepErrno errno_kept;

        explicit_bzero(secret, malloc_usable_size(secret));
        std::free(secret);
    }
};
using OwnedSecret = std::unique_ptr<char[], WipeMemory>;

struct PanelCredentials {
    OwnedText host;
    unsigned int port = 0; /* 0: the client library's default port */
    OwnedText user;
    OwnedSecret password;
    OwnedText database;
};

/*
 * Gather the credentials.
 *
 * The DSN file's section "kolmo" has the keys host, port, username, password and dbname; what it lacks is
 * "localhost", 0, "admin" and "qsx".  The port is what strtol makes of the text's beginning, in base 10,
 * without a range check.  Of the password file the first line counts, without its newline and with everything
 * else, blanks and carriage returns too.  It is not opened when the DSN file has the key.
 *
 * credentials   filled on success; after a failure what was read so far, to be dropped
 * error_buffer  gets the text of a failure, cut to buffer_size bytes with the terminator; otherwise
 *               left as it is
 * Returns 0, or -1 when the password file cannot be opened, examined or read or memory runs out, with the
 * errno of that failure; an empty file is such a failure, too, and leaves errno as it was.  The texts:
 *   "Unable to open admin password file: %s"      system error text
 *   "Unable to get admin password file stat: %s"  system error text
 *   "Unable to allocate memory for password"
 *   "Unable to read admin password file: %s"      system error text
 * Logs nothing.  errno after success is whatever the last file left there (ENOENT without a DSN file).
 */
[[nodiscard]] int panel_read_credentials(PanelCredentials *credentials, char *error_buffer,
                                         std::size_t buffer_size);

} // namespace kolmo
