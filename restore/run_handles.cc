#include "restore/run_handles.h"

namespace kolmo
{

StoreConnection responder_db;
MYSQL *panel_db;

} // namespace kolmo
