/*
 * change: one row that differs between a live store and what a rebuild made aside, and how many there are.
 */
#pragma once

#include <array>
#include <cstddef>
#include <string>

namespace kolmo
{

enum class ChangeKind { added, changed, removed };
enum class ChangedTable { autoresponder, attachments, extra_headers, handlers };

constexpr std::size_t change_kinds = 3;
constexpr std::size_t changed_tables = 4;

/* "added", "changed" or "removed"; the table's name; "responder" or "handlers". */
[[nodiscard]] const char *change_name(ChangeKind kind);
[[nodiscard]] const char *table_name(ChangedTable table);
[[nodiscard]] const char *store_name(ChangedTable table);

struct Change {
    ChangeKind kind = ChangeKind::added;
    ChangedTable table = ChangedTable::autoresponder;
    std::string key; /* the address; of an attachment "address file"; of an extra header its name */
};

class ChangeCounts
{
public:
    [[nodiscard]] unsigned long of(ChangeKind kind, ChangedTable table) const
    {
        return counts_[static_cast<std::size_t>(kind)][static_cast<std::size_t>(table)];
    }
    [[nodiscard]] unsigned long of(ChangeKind kind) const; /* in all tables */
    [[nodiscard]] unsigned long all() const;

    void add(ChangeKind kind, ChangedTable table, unsigned long rows = 1)
    {
        counts_[static_cast<std::size_t>(kind)][static_cast<std::size_t>(table)] += rows;
    }
    void forget(ChangedTable table); /* as if none of its rows had been added */

private:
    std::array<std::array<unsigned long, changed_tables>, change_kinds> counts_ = {};
};

} // namespace kolmo
