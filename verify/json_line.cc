#include "verify/json_line.h"

#include <cstdio>
#include <string>

namespace kolmo
{

namespace
{

/* DEL and C1 stand in a dump as they are; they occur within its texts only. */
std::string without_controls(const std::string &dump)
{
    std::string result;

    for (std::size_t i = 0; i < dump.size(); i++) {
        const auto byte = static_cast<unsigned char>(dump[i]);
        const auto next = static_cast<unsigned char>(i + 1 < dump.size() ? dump[i + 1] : 0);
        char text[8];

        if (byte == 0x7f || (byte == 0xc2 && next >= 0x80 && next <= 0x9f)) {
            (void)std::snprintf(text, sizeof text, "\\u%04x",
                                static_cast<unsigned int>(byte == 0x7f ? byte : next));
            result += text;
            i += byte == 0x7f ? 0 : 1;
        } else {
            result += dump[i];
        }
    }
    return result;
}

} // namespace

void print_json_line(const JsonObject &object)
{
    const std::string line =
        without_controls(object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)) + '\n';

    (void)std::fwrite(line.data(), 1, line.size(), stdout);
}

} // namespace kolmo
