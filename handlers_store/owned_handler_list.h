/*
 * owned_handler_list: a handler list that frees itself.
 */
#ifndef KOLMO_HANDLERS_STORE_OWNED_HANDLER_LIST_H
#define KOLMO_HANDLERS_STORE_OWNED_HANDLER_LIST_H

#include "handlers_store/handler_record.h"

namespace kolmo
{

/* A list that lives for one scope. */
class OwnedHandlerList
{
public:
    OwnedHandlerList() { (void)handler_list_init(&list_); }
    OwnedHandlerList(const OwnedHandlerList &) = delete;
    OwnedHandlerList &operator=(const OwnedHandlerList &) = delete;
    ~OwnedHandlerList() { handler_list_free(&list_); }

    [[nodiscard]] HandlerList *get() noexcept { return &list_; }

private:
    HandlerList list_;
};

} // namespace kolmo

#endif
