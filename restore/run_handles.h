/*
 * run_handles: the two connections of a run, which its steps share.
 */
#pragma once

#include <mysql.h>

#include "responder_store/kit/store_connection.h"

namespace kolmo
{

/*
 * The responder store, opened after the utility's success and closed at the end; closed before, and as soon
 * as a failing operation has closed it.  If a pause fails, it stays set, abandoned, and the end of the
 * process lets go of it.
 */
inline StoreConnection responder_db;

/* The panel database; null before and after the run, and when it could not be reached. */
inline MYSQL *panel_db;

} // namespace kolmo
