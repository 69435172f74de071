/*
 * panel_estimate: how much a rebuild is going to write, asked of the panel beforehand.
 */
#pragma once

#include <cstdint>

#include <mysql.h>

namespace kolmo
{

struct PanelEstimate {
    unsigned long replies = 0; /* rows of the responder store, those at aliases included */
    std::uint64_t bytes = 0;   /* of the texts in them */
};

/* Returns 0, or -1: mysql_error says why. */
[[nodiscard]] int estimate_rebuild(MYSQL *panel, PanelEstimate *estimate);

} // namespace kolmo
