/*
 * staging: the place beside the live stores in which a rebuild works.
 *
 * It is a folder with one folder for each store's, of the live folder's owner and mode, and the copy of the
 * handlers store that is compared with.  In memory it lies on a tmpfs that only this mount namespace sees and
 * that goes with the process; on a disk it is removed at the end, or by the next refresh.
 */
#pragma once

#include <cstdint>
#include <string>

#include "refresh/lock.h"
#include "refresh/publisher.h"

namespace kolmo
{

class Staging
{
public:
    /* The lock must outlive this object. */
    explicit Staging(RunLock *lock) : lock_(lock) {}
    ~Staging();
    Staging(const Staging &) = delete;
    Staging &operator=(const Staging &) = delete;

    /*
     * Gives this process a mount namespace of its own, in which what the host unmounts goes, too, and nothing
     * that is mounted gets out.  Returns 0, or -1 after telling the trouble.
     */
    [[nodiscard]] static int enter_own_mounts(const TroubleSink &trouble);

    /*
     * Makes the folder.
     *
     * parent  the folder to make it in, which only root may rename things in; empty for memory
     * size    what will be needed, in bytes
     * Returns 0, or -1 after telling the trouble: there is not that much memory or disk, or it cannot be
     * made.
     */
    [[nodiscard]] int make(const std::string &parent, std::uint64_t size, const TroubleSink &trouble);

    /* Empties it and makes the stores' folders.  Returns 0, or -1 after telling the trouble. */
    [[nodiscard]] int prepare(const TroubleSink &trouble);

    /* Gives the staged handlers store the live one's owner and mode.  Returns 0, or -1 after the trouble. */
    [[nodiscard]] int adopt_handlers(const TroubleSink &trouble);

    /* Undoes what a rebuild that was killed had not committed. */
    void roll_back() const;

    [[nodiscard]] PublishPaths paths() const;
    [[nodiscard]] std::string responder_folder() const { return path_ + "/responder"; }
    [[nodiscard]] std::string handlers_folder() const { return path_ + "/handlers"; }

    /* Whether no more can be written to it. */
    [[nodiscard]] bool is_full() const;

private:
    [[nodiscard]] int make_folder(const std::string &parent, const TroubleSink &trouble);
    [[nodiscard]] int make_in_memory(std::uint64_t size, const TroubleSink &trouble);

    RunLock *lock_;
    std::string path_;
};

} // namespace kolmo
