#include "panel/reply_headers.h"

#include <cstdio>
#include <exception>
#include <sstream>
#include <string>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

namespace kolmo
{

namespace
{

void read_pairs(const std::string &json, ReplyHeaders *headers)
{
    const auto tree = std::make_shared<boost::property_tree::ptree>();
    std::istringstream stream(json);

    boost::property_tree::read_json(stream, *tree);
    for (const auto &[name, member] : *tree) {
        headers->names.push_back(name.c_str());
        headers->values.push_back(member.data().c_str());
    }
    headers->tree = tree;
}

} // namespace

int read_reply_headers(const char *json, ReplyHeaders *headers, char *error_buffer, std::size_t buffer_size)
{
    try {
        read_pairs(json, headers);
    } catch (const std::exception &error) {
        (void)std::snprintf(error_buffer, buffer_size, "%s", error.what());
        return -1;
    }
    return 0;
}

} // namespace kolmo
