/*
 * database_source: which panel database is asked, as whom, from which files that comes; and the connection.
 */
#pragma once

#include <string>
#include <vector>

#include "panel/panel_db.h"
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

/* panel_db_connect_ex; null after telling why. */
[[nodiscard]] PanelConnection connect_panel(const TroubleSink &trouble);

} // namespace kolmo
