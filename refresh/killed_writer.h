/*
 * killed_writer: what a writer that was killed in the middle of a commit leaves beside a store.
 */
#pragma once

#include <string>
#include <vector>

namespace kolmo
{

/*
 * Whether a store has a hot journal: one that no living writer is using, and from which whoever opens the
 * store next rolls back.
 *
 * To be asked while this process has no connection to the store: looking at its locks lets go of them.
 */
[[nodiscard]] bool has_hot_journal(const std::string &path);

/*
 * The lists of journals (store-mjXXXXXXXXX) that a killed commit over several files left beside its first
 * one.  One of which a journal with a header is still there is not among them: whether that journal's file is
 * rolled back depends on the list.  To be trusted while this process holds the store's writers off: a list is
 * not complete at once.
 */
[[nodiscard]] std::vector<std::string> stale_journal_lists(const std::string &path);

} // namespace kolmo
