/*
 * owned_handler_list: a handler list that frees itself.
 */
#ifndef KOLMO_HANDLERS_STORE_OWNED_HANDLER_LIST_H
#define KOLMO_HANDLERS_STORE_OWNED_HANDLER_LIST_H

#include "common/owned.h"
#include "handlers_store/handler_record.h"

namespace kolmo
{

using OwnedHandlerList = OwnedList<HandlerList, handler_list_init, handler_list_free>;

} // namespace kolmo

#endif
