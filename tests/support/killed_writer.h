/*
 * killed_writer: what a process leaves of a store that was killed in the middle of a transaction.
 */
#pragma once

#include <string>

namespace kolmo::testing
{

/*
 * Another process begins a transaction on an SQLite file, runs `sql` in it, writes more than its cache holds
 * and is killed: the file then has pages that were never committed, and beside it stands the journal with
 * the old ones.  The connections of this process to the file must be idle.  The test fails without a journal.
 */
void kill_writer(const std::string &path, const std::string &sql);

} // namespace kolmo::testing
