/*
 * publisher: brings what a rebuild made aside into the live stores, the differing rows only, at once.
 *
 *     open_live       what the live stores are now; a hot journal is rolled back
 *     copy_handlers   the live handlers store, twice: for the rebuild to work on, and to compare with
 *     ...             the rebuild works on the staged stores
 *     compare         which rows differ; the live responder store is looked at in a private copy, which is
 *                     made in steps of a moment
 *     publish         one transaction over both stores
 *
 * Between the steps no lock is held.  publish looks again, under the lock, whether somebody changed the
 * responder store since open_live, or a row of the handlers store that is about to be written since
 * copy_handlers.
 *
 * Other tables than the four are left as they are.  Triggers of the live stores are not run: what they make
 * of a row was made when the rebuild wrote it.
 *
 * After a kill or a power cut the live stores are the old ones or the new ones: the commit over two files is
 * one by SQLite's super-journal, "HANDLERS-mjXXXXXXXXX", which is removed by the next open_live when nobody
 * needs it any more.  A responder store that is replaced whole is not part of that: first its file is, at
 * once, then the handlers are committed.  A handler without a reply would be run in vain; a reply without a
 * handler waits.
 *
 * For a second try begin again with open_live.  Staged files are held open until the end of the object.
 */
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "refresh/change.h"
#include "verify/store_copy.h"

namespace kolmo
{

struct PublishPaths {
    std::string live_responder;
    std::string live_handlers;
    std::string staged_responder;
    std::string staged_handlers;
    std::string handlers_before; /* the staged handlers store as it was before the rebuild */
};

/* An autoresponder handler, as the store has it, whatever stands there as queue and type; nothing stands for
   NULL. */
struct HandlerKey {
    std::optional<std::string> queue;
    std::optional<std::string> type;
    std::string address;
};

struct PublishOptions {
    bool removes = true; /* not after a rebuild that failed: what it did not get to is not unwanted */
    std::vector<HandlerKey> prune = {}; /* autoresponder handlers that go */
};

/* Who hears what; the first two must be callable. */
struct PublishSink {
    TroubleSink trouble; /* what could not be done */
    TroubleSink note;    /* a hot journal was rolled back, a store is replaced */
    /* Both stores are locked and are about to be written: a process that is killed from here to the end of
       publish leaves hot journals, which programs that only read cannot mend. */
    std::function<void()> locked = {};
};

enum class PublishResult {
    published,         /* also when there was nothing to write: then nothing was */
    changed_meanwhile, /* somebody wrote what was about to be written: nothing was written; told as trouble */
    failed,            /* nothing was written; told as trouble */
    responder_only /* the responder store was replaced whole, but not all the rest done; told as trouble */
};

class Publisher
{
public:
    /* wait_seconds  how long a lock of another process is waited for, each time */
    Publisher(PublishPaths paths, int wait_seconds, PublishSink sink);
    ~Publisher();
    Publisher(const Publisher &) = delete;
    Publisher &operator=(const Publisher &) = delete;

    /*
     * Opens both live stores and keeps in mind how they are.  A hot journal is rolled back.  A responder
     * store that is missing, empty, no database or damaged is no failure: it will be replaced whole.  Not
     * while this process has another connection to a store.
     *
     * tidies  whether what a killed process of ours left beside the stores is removed
     * Returns 0, or -1 after telling the trouble: the handlers store is missing or no database, a store is in
     * WAL mode (in which a commit over two files is not one), locked, or cannot be read or written.
     */
    [[nodiscard]] int open_live(bool tidies = true);

    /* Copies the live handlers store, by SQLite's backup interface, to staged_handlers and handlers_before,
       mode 0600; owner and mode are the caller's affair.  Returns 0, or -1 after telling the trouble. */
    [[nodiscard]] int copy_handlers();

    /* Whether somebody wrote or replaced the live responder store since open_live; also when it cannot be
     * told. */
    [[nodiscard]] bool responder_changed();

    /*
     * Finds the rows that differ and remembers them for publish: of the responder store's tables those of
     * the live and the staged store, of the handlers those that the rebuild has changed.
     *
     * each    hears every one of them, in the order of tables and keys; empty for nobody
     * counts  set in any case
     * Returns 0, or -1 after telling the trouble.
     */
    [[nodiscard]] int compare(const PublishOptions &options, const std::function<void(const Change &)> &each,
                              ChangeCounts *counts);

    /* Whether publish will replace the responder store's file whole: it is missing, no database, damaged, or
       of another schema than the staged one.  Known after compare, which notes why; then there is something
       to publish even if no row differs. */
    [[nodiscard]] bool replaces_responder() const;

    /* Writes what compare found, if anything; a lock is waited for, without keeping others out. */
    [[nodiscard]] PublishResult publish();

private:
    class Live;

    std::unique_ptr<Live> live_;
};

} // namespace kolmo
