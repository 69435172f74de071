/*
 * domain_query: the queries that a run asks about one domain.
 */
#pragma once

#include <cstddef>

#include "panel/panel_db.h"
#include "responder_store/kit/checked_text.h"

namespace kolmo
{

/* Room for a query with its terminator: what is longer is refused here, or cut where a query says so. */
constexpr std::size_t query_size = 4096;

/*
 * Asks panel_db the query that `format` and the domain's id make.
 *
 * Returns the rows; null after logging, at priority 3, `not_formed` for a query that is too long, or
 * `not_answered` with the server's text.
 */
[[nodiscard]] PanelResult query_domain(TextFormat<1> format, const char *domain_id, const char *not_formed,
                                       TextFormat<1> not_answered);

} // namespace kolmo
