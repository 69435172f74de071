#include "restore/extra_reply_headers.h"

#include <exception>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include "common/log.h"
#include "responder_store/responder_db.h"

namespace kolmo
{

namespace
{

/* Header names and values side by side; they point into the tree that was read. */
struct HeaderTexts {
    boost::property_tree::ptree tree;
    std::vector<const char *> names;
    std::vector<const char *> values;
};

void read_headers(HeaderTexts *headers, const std::string &json)
{
    std::istringstream stream(json);

    boost::property_tree::read_json(stream, headers->tree);
    for (const auto &[name, member] : headers->tree) {
        headers->names.push_back(name.c_str());
        headers->values.push_back(member.data().c_str());
    }
}

} // namespace

int store_extra_headers(StoreConnection *connection, const char *json)
{
    std::optional<HeaderTexts> headers; /* even an empty tree needs memory */

    try {
        read_headers(&headers.emplace(), json);
    } catch (const std::exception &error) {
        log_message(LOG_ERR, "Unable to parse auto-reply headers json: %s", error.what());
        return -1;
    }
    return responder_db_add_extra_headers(connection, headers->names.data(), headers->values.data(),
                                          static_cast<int>(headers->names.size()));
}

} // namespace kolmo
