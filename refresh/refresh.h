/*
 * refresh: rebuild aside, look, publish.
 */
#pragma once

#include "refresh/options.h"
#include "refresh/output.h"

namespace kolmo
{

/*
 * A whole refresh of the stores at responder_db_path and handlers_db_path: takes the lock, stages, runs the
 * rebuild, looks at what it made, and publishes what differs.  When the panel or a live store changed
 * meanwhile, it does all of that once more.
 *
 * Everything is told to the output but the end, which is returned (its time is the caller's affair).  Nothing
 * stays but the lock's file.
 */
[[nodiscard]] RefreshEnd refresh_stores(const RefreshOptions &options, RefreshOutput *output);

} // namespace kolmo
