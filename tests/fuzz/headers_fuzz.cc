/* The extra headers' setting: whatever it is, no exception leaves the reader and nothing is written. */
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "restore/extra_reply_headers.h"
#include "tests/fuzz/quiet_log.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    const std::string json(reinterpret_cast<const char *>(bytes), size);
    kolmo::StoreConnection closed;

    kolmo::log_message = kolmo::testing::drop_message;
    /* 0 only for a text without any pair: the writer has nothing to do then. */
    if (kolmo::store_extra_headers(&closed, json.c_str()) > 0)
        std::abort();
    return 0;
}
