/*
 * program_flow: one run, from logging to the exit status.
 *
 * The run re-creates the responder store through the panel's own utility, fills it and the handlers store
 * from the panel database, domain by domain and alias by alias, writes the extra reply headers and closes
 * both databases.  Whatever fails is reported and ends it; what was committed before stays.
 */
#pragma once

namespace kolmo
{

/*
 * Rebuilds both stores.  `program` names the log; null means the process's own short name.
 *
 * Returns the exit status: 0 when every domain and alias is done and the extra headers are written or not
 * set; 1 when a domain's handlers or responders, or an alias's copies, failed, or the setting of the extra
 * headers could not be read; -1 (255 to the system) after any other failure.  Each has been logged at
 * priority 3, to syslog's mail facility and on standard error, but for a setting that could not be read,
 * which is reported on standard output and standard error only, and a pause that failed, which is not told.
 * Ends the process with 1, after such a report, when memory, descriptors or processes run out, or when a
 * handler's address is too long to be copied for an alias.
 *
 * Runs /opt/qsx/admin/sbin/mail_responders_control --init-db.  Reads and writes the files at
 * responder_db_path and handlers_db_path; reads what panel_db_connect reads.
 */
[[nodiscard]] int rebuild_responders(const char *program);

} // namespace kolmo
