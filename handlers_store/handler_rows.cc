#include "handlers_store/handler_rows.h"

#include "common/log.h"

namespace kolmo
{

HandlerRecord record_from_row(const Rows &row, int executable)
{
    HandlerRecord record;

    handler_record_init(&record);
    record.priority = row.integer(0);
    record.type = row.integer(1);
    record.queue = row.integer(2);
    record.name = row.text(3);
    record.executable = row.text(executable);
    record.context = row.text(executable + 1);
    return record;
}

int keep_row(HandlerList *list, const HandlerRecord *record)
{
    if (handler_list_append(list, record) == 0)
        return 0;
    log_message(LOG_ERR, "Unable to save the data from SELECT query");
    return -1;
}

} // namespace kolmo
