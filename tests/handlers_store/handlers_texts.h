/*
 * handlers_texts: the statements of the handlers store, and what is said when one of them fails.
 */
#pragma once

#include <string>

namespace kolmo::testing
{

inline constexpr char insert_sql[] =
    "INSERT OR REPLACE INTO handlers(priority, name, type, address, queue, executable, context, protected, "
    "enabled) VALUES(?, ?, ?, LOWER(?), ?, ?, ?, ?, ?)";
inline constexpr char delete_one_sql[] =
    "DELETE FROM handlers WHERE name=? AND type=? AND address=LOWER(?) AND queue=?";
inline constexpr char delete_everywhere_sql[] = "DELETE FROM handlers WHERE name=? AND type=? AND queue=?";
inline constexpr char delete_by_address_sql[] = "DELETE FROM handlers WHERE address=?";
inline constexpr char delete_by_name_sql[] = "DELETE FROM handlers WHERE name=?";
inline constexpr char select_to_run_sql[] =
    "SELECT executable, context, name FROM handlers WHERE queue=? AND type=? AND "
    "enabled=? AND address=? ORDER BY priority DESC";
inline constexpr char select_exact_sql[] =
    "SELECT priority, type, queue, name, address, executable, context, enabled "
    "FROM handlers WHERE address = ?";
inline constexpr char select_domain_sql[] =
    "SELECT priority, type, queue, name, address, executable, context, enabled "
    "FROM handlers WHERE address LIKE '%' || ? || '%'";
inline constexpr char copy_mailbox_sql[] =
    "SELECT priority, type, queue, name, executable, context, enabled FROM handlers WHERE address=?";
inline constexpr char copy_domain_sql[] =
    "SELECT priority, type, queue, name, executable, context, enabled, address "
    "FROM handlers WHERE address LIKE '%' || ? || '%'";

inline constexpr char out_of_memory[] = "3 System error: Cannot allocate memory";
inline constexpr char not_kept[] = "3 Unable to save the data from SELECT query";
inline constexpr char not_added[] = "3 Unable to add records into handlers database";
inline constexpr char no_list[] = "3 Get handlers list";

/* Of a statement that cannot be prepared; the reason is the one for a connection that is closed. */
[[nodiscard]] inline std::string unprepared(const std::string &sql,
                                            const std::string &reason = "general DB errror")
{
    return "3 Unable to prepare SQL statement for query '" + sql + "': " + reason;
}

} // namespace kolmo::testing
