#include <iterator>

#include "refresh/output.h"

namespace kolmo
{

namespace
{

struct Row {
    const char *name;
    bool published;
    int status;
};

/* In the order of the enumeration. */
constexpr Row rows[] = {
    {"published", true, 0},          {"nothing-to-do", true, 0},    {"published-in-part", true, 1},
    {"dry-run", false, 1},           {"rebuild-failed", false, 1},  {"findings", false, 1},
    {"changed-meanwhile", false, 1}, {"outside-utility", false, 1}, {"write-failed", false, 1},
    {"trouble", false, 2},
};
static_assert(std::size(rows) == static_cast<std::size_t>(Result::trouble) + 1);

const Row &row_of(Result result)
{
    return rows[static_cast<std::size_t>(result)];
}

} // namespace

const char *result_name(Result result)
{
    return row_of(result).name;
}

bool is_published(Result result)
{
    return row_of(result).published;
}

int result_status(Result result)
{
    return row_of(result).status;
}

bool is_told(Result result, bool quiet)
{
    return !quiet || result == Result::published_in_part;
}

} // namespace kolmo
