/*
 * file_replacement: a store's file put in the place of one that cannot be mended row by row.
 */
#pragma once

#include <string>

#include "verify/store_copy.h"

namespace kolmo
{

/*
 * The new file waits beside the old one as "STORE-refresh", whole and synced, and then takes its name: at any
 * moment, also after a power cut, one of them is there.
 */
class FileReplacement
{
public:
    /* Where the new file of a store waits. */
    [[nodiscard]] static std::string waiting_path(const std::string &path);

    /* Removes what a process that was killed left waiting. */
    explicit FileReplacement(const std::string &path);

    /* What waits still is removed. */
    ~FileReplacement();
    FileReplacement(const FileReplacement &) = delete;
    FileReplacement &operator=(const FileReplacement &) = delete;

    /* Copies `source`, with its owner, group and mode.  Returns 0, or -1 after telling the trouble. */
    [[nodiscard]] int prepare(const std::string &source, const TroubleSink &trouble);

    /*
     * Gives it the name.  A journal of the old file is removed first: SQLite would take it for one of the
     * new file's and roll it back into that.
     *
     * Returns 0, or -1 after telling the trouble; whether it has the name then is is_installed's to tell.
     */
    [[nodiscard]] int install(const TroubleSink &trouble);

    [[nodiscard]] bool is_installed() const { return is_installed_; }

private:
    [[nodiscard]] int sync_folder() const;

    std::string path_;
    std::string waiting_;
    bool is_waiting_ = false;
    bool is_installed_ = false;
};

} // namespace kolmo
