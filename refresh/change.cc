#include "refresh/change.h"

namespace kolmo
{

const char *change_name(ChangeKind kind)
{
    constexpr const char *names[change_kinds] = {"added", "changed", "removed"};

    return names[static_cast<std::size_t>(kind)];
}

const char *table_name(ChangedTable table)
{
    constexpr const char *names[changed_tables] = {"autoresponder", "attachments", "extra_headers",
                                                   "handlers"};

    return names[static_cast<std::size_t>(table)];
}

const char *store_name(ChangedTable table)
{
    return table == ChangedTable::handlers ? "handlers" : "responder";
}

unsigned long ChangeCounts::of(ChangeKind kind) const
{
    unsigned long rows = 0;

    for (const unsigned long count : counts_[static_cast<std::size_t>(kind)])
        rows += count;
    return rows;
}

void ChangeCounts::forget(ChangedTable table)
{
    for (auto &tables : counts_)
        tables[static_cast<std::size_t>(table)] = 0;
}

unsigned long ChangeCounts::all() const
{
    return of(ChangeKind::added) + of(ChangeKind::changed) + of(ChangeKind::removed);
}

} // namespace kolmo
