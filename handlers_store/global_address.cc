#include "handlers_store/global_address.h"

#include <cstring>

#include "common/log.h"
#include "handlers_store/handlers_db.h"

namespace kolmo
{

bool is_global_address(const char *address)
{
    return std::strcmp(address, address_all) == 0 || std::strcmp(address, address_all_recipients) == 0;
}

const char *handlers_global_address(const char *address)
{
    if (address == nullptr || *address == '\0')
        return address_all;
    if (is_global_address(address))
        return address;
    log_message(LOG_ERR, "Incorrect recipient address for global handler, expected [NULL|EMPTY_STRING|%s|%s]",
                address_all, address_all_recipients);
    return nullptr;
}

} // namespace kolmo
