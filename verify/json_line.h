/*
 * json_line: one JSON object a line on standard output.
 */
#pragma once

#include <nlohmann/json.hpp>

namespace kolmo
{

using JsonObject = nlohmann::ordered_json;

/* Bytes that are no UTF-8 are replaced; control characters, DEL and C1 are escaped. */
void print_json_line(const JsonObject &object);

} // namespace kolmo
