#include "restore/domain_query.h"

#include "common/log.h"
#include "restore/run_handles.h"

namespace kolmo
{

PanelResult query_domain(TextFormat<1> format, const char *domain_id, const char *not_formed,
                         TextFormat<1> not_answered)
{
    char query[query_size];
    const auto length = static_cast<std::size_t>(format_text(query, sizeof query, format, domain_id));

    if (length >= sizeof query) { /* or it failed */
        log_message(LOG_ERR, "%s", not_formed);
        return nullptr;
    }

    PanelResult rows = panel_select(panel_db, query, length);

    if (rows == nullptr)
        log_failure(not_answered, mysql_error(panel_db));
    return rows;
}

} // namespace kolmo
