/* The panel configuration file: whatever stands in it, every variable that is read can be found again. */
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "panel/panel_conf.h"
#include "tests/fuzz/quiet_log.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    auto *const store = static_cast<kolmo::QsxConfStore *>(std::calloc(1, sizeof(kolmo::QsxConfStore)));
    std::FILE *const stream = fmemopen(const_cast<std::uint8_t *>(bytes), size, "r");

    kolmo::log_message = kolmo::testing::drop_message;
    if (stream == nullptr || store == nullptr || kolmo::conf_store_reserve(store) != 0 ||
        kolmo::conf_parse_stream(stream, store) != 0)
        std::abort();
    for (std::size_t i = 0; i < store->count; i++) {
        const kolmo::QsxConfEntry &entry = store->entries[i];

        if (*entry.name == '\0' || *entry.value == '\0' || std::strchr(entry.value, '#') != nullptr ||
            kolmo::conf_store_find(store, entry.name) != entry.value)
            std::abort();
    }
    kolmo::conf_store_free(store);
    return 0;
}
