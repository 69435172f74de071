/*
 * database_source: which panel database is asked, as whom, and from which files that comes.
 */
#pragma once

#include <string>
#include <vector>

#include "verify/store_copy.h"

namespace kolmo
{

struct DatabaseSource {
    std::string host;
    std::string user;
    std::string name;
    std::string door;                 /* the socket of the local host, "port NUMBER" of another one */
    std::vector<std::string> origins; /* "host from FILE", "user by default" */
};

/*
 * Says what panel_db_connect will use, the password excepted.
 *
 * Returns 0, or -1 after telling that a file is there but cannot be read: the connection would then be made
 * with the defaults, to another database perhaps.
 */
[[nodiscard]] int read_database_source(DatabaseSource *source, const TroubleSink &trouble);

} // namespace kolmo
