/*
 * owned_handler_list: a handler list that frees itself.
 */
#pragma once

#include "common/owned.h"
#include "handlers_store/handler_record.h"

namespace kolmo
{

using OwnedHandlerList = OwnedList<HandlerList, handler_list_init, handler_list_free>;

} // namespace kolmo
