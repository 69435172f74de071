#include "refresh/refresh.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "handlers_store/handlers_db.h"
#include "refresh/file_replacement.h"
#include "refresh/folder.h"
#include "refresh/interruption.h"
#include "refresh/killed_writer.h"
#include "refresh/lock.h"
#include "refresh/panel_estimate.h"
#include "refresh/publisher.h"
#include "refresh/rebuild_child.h"
#include "refresh/rebuild_program.h"
#include "refresh/rebuild_progress.h"
#include "refresh/staging.h"
#include "refresh/staging_size.h"
#include "refresh/store_file.h"
#include "responder_store/responder_db.h"
#include "verify/progress.h"
#include "verify/store_copy.h"

namespace kolmo
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int tries = 2;

/* One refresh from its beginning to its end. */
class Refresh
{
public:
    Refresh(const RefreshOptions &options, RefreshOutput *output)
        : options_(options), output_(output), staging_(&lock_)
    {
    }

    [[nodiscard]] RefreshEnd run();

private:
    [[nodiscard]] int begin();
    void remove_left_folder();
    [[nodiscard]] int estimate();

    /* Each returns nothing when the try goes on. */
    [[nodiscard]] std::optional<Result> attempt(bool is_last);
    [[nodiscard]] std::optional<Result> stage(Publisher *publisher);
    [[nodiscard]] std::optional<Result> rebuild(Publisher *publisher);
    [[nodiscard]] std::optional<Result> look(bool is_last);
    [[nodiscard]] std::optional<Result> compare(Publisher *publisher);
    [[nodiscard]] std::optional<Result> publish(Publisher *publisher, bool is_last);

    void wait_for(RebuildChild *child);
    [[nodiscard]] int run_child(int *status);
    [[nodiscard]] int look_at_stores();
    void take_finding(Finding finding);
    void forget_handlers();
    [[nodiscard]] bool is_in_part() const { return rebuild_failed_ || look_->summary.rebuild > 0; }

    const RefreshOptions &options_;
    RefreshOutput *output_;
    const TroubleSink trouble_ = [this](const std::string &text) {
        output_->trouble(text);
    };
    RunLock lock_;
    Staging staging_; /* goes before the lock */
    DatabaseSource source_;
    PanelEstimate estimate_;
    std::string program_;

    /* Of the last try. */
    bool rebuild_failed_ = false;
    std::optional<StagedLook> look_;
    std::vector<HandlerKey> prune_;
    std::vector<Change> rows_;
    ChangeCounts counts_;
    bool replaces_responder_ = false;
    std::optional<HoldSignals> held_; /* while the live stores are locked */
    std::vector<std::string> said_under_lock_;
};

int Refresh::begin()
{
    if (find_rebuild_program(options_.rebuild, &program_, trouble_) != 0 ||
        lock_.take(options_.wait_seconds, trouble_) != 0 || read_database_source(&source_, trouble_) != 0 ||
        estimate() != 0 || Staging::enter_own_mounts(trouble_) != 0)
        return -1;
    remove_left_folder();
    return staging_.make(options_.stage, staging_size(estimate_, responder_db_path, handlers_db_path),
                         trouble_);
}

/* A refresh that was interrupted has removed its folder, but not the note of it. */
void Refresh::remove_left_folder()
{
    const std::string &left = lock_.left_folder();
    struct stat status;

    if (left.empty() || (::lstat(left.c_str(), &status) != 0 && errno == ENOENT))
        return;
    if (remove_staging_folder(left.c_str()) == 0)
        output_->note("a refresh was killed; what it has left at " + left + " is gone");
    else /* it is forgotten now: told even to who wants it quiet */
        trouble_("a refresh was killed; what it has left at " + left +
                 " cannot be removed: " + std::strerror(errno));
}

/* A table that cannot be read is the rebuild's to report, in its own words. */
int Refresh::estimate()
{
    const PanelConnection panel = connect_panel(trouble_);

    if (panel == nullptr)
        return -1;
    (void)estimate_rebuild(panel.get(), &estimate_);
    return 0;
}

void Refresh::wait_for(RebuildChild *child)
{
    constexpr int poll_milliseconds = 500;
    Progress progress(wants_progress(options_), "rebuild: ");
    const bool is_watched = wants_progress(options_) && estimate_.replies > 0;
    const std::string store = staging_.paths().staged_responder;

    while (!child->wait(is_watched ? poll_milliseconds : -1)) {
        if (is_watched)
            progress.show(std::min(count_replies_unlocked(store), estimate_.replies), estimate_.replies);
    }
}

int Refresh::run_child(int *status)
{
    RebuildChild child;

    if (child.start({.program = program_,
                     .responder_folder = staging_.responder_folder(),
                     .handlers_folder = staging_.handlers_folder(),
                     .output_to_stderr = options_.json},
                    trouble_) != 0)
        return -1;
    wait_for(&child);
    return child.end(status, trouble_);
}

std::optional<Result> Refresh::stage(Publisher *publisher)
{
    for (const char *const store : {responder_db_path, handlers_db_path}) {
        if (!options_.dry_run || !has_hot_journal(store))
            continue;
        trouble_(
            std::string(store) +
            " has a hot journal, which a dry run does not touch: without --dry-run it is rolled back first");
        return Result::trouble;
    }
    if (staging_.prepare(trouble_) != 0 || publisher->open_live(!options_.dry_run) != 0 ||
        publisher->copy_handlers() != 0 || staging_.adopt_handlers(trouble_) != 0)
        return Result::trouble;
    return std::nullopt;
}

std::optional<Result> Refresh::rebuild(Publisher *publisher)
{
    int status = 0;

    if (run_child(&status) != 0)
        return Result::trouble;
    if (is_missing_or_empty(staging_.paths().staged_responder) && publisher->responder_changed()) {
        trouble_(
            "the panel's utility has made no responder store in the staging, but the live one has changed: "
            "it seems to work through a service that does not see the staging. With such a panel there is "
            "only mail_responders_rebuild; run it now, for the live responder store may be empty");
        return Result::outside_utility;
    }
    rebuild_failed_ = status != 0;
    if (!rebuild_failed_)
        return std::nullopt;
    trouble_(rebuild_end_text(status) +
             (staging_.is_full() ? "; the staging is full: --stage DIR stages in a folder" : "") +
             (options_.partial ? "" : "; nothing is published"));
    if (!options_.partial)
        return Result::rebuild_failed;
    staging_.roll_back();
    return std::nullopt;
}

/* With --prune a stale handler is removed, not found; one behind which a limit stands would come again, and a
   blob is not told from the wanted text of the same bytes.  After a rebuild that failed nothing is removed.
 */
void Refresh::take_finding(Finding finding)
{
    const std::string staged = staging_.paths().staged_handlers;
    const std::size_t place = finding.command.find(staged);

    if (finding.code == &code_handler_stale && finding.limit == nullptr && !finding.handler.has_blob &&
        options_.prune && !rebuild_failed_) {
        prune_.push_back({finding.handler.queue, finding.handler.type, finding.address});
        look_->summary.manual--;
        return;
    }
    if (place != std::string::npos)
        finding.command.replace(place, staged.size(), handlers_db_path);
    output_->finding(finding);
}

int Refresh::look_at_stores()
{
    const PublishPaths paths = staging_.paths();
    const auto start = Clock::now();
    const PanelConnection panel = connect_panel(trouble_);
    Progress progress(wants_progress(options_), "look: ");
    const VerifySink sink = {
        .finding = [&](const Finding &finding) { take_finding(finding); },
        .trouble =
            [&](const std::string &text) {
                progress.clear();
                output_->trouble(text);
            },
        .note =
            [&](const std::string &text) {
                progress.clear();
                output_->note(text);
            },
        .progress = [&](unsigned long done, unsigned long all) { progress.show(done, all); },
    };

    if (panel == nullptr)
        return -1;
    look_->status = verify_stores(panel.get(),
                                  {.responder_path = paths.staged_responder.c_str(),
                                   .handlers_path = paths.staged_handlers.c_str(),
                                   .domains = {},
                                   .wait_seconds = options_.wait_seconds,
                                   .check_owners = false},
                                  sink, &look_->summary);
    look_->seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return look_->status == 2 ? -1 : 0;
}

std::optional<Result> Refresh::look(bool is_last)
{
    look_.emplace();
    output_->begin_look();
    prune_.clear();
    if (look_at_stores() != 0) {
        trouble_("the staged stores could not be judged; nothing is published");
        return Result::trouble;
    }
    if (look_->summary.rebuild == 0 || rebuild_failed_)
        return std::nullopt;
    if (!is_last) {
        output_->note(
            "the staged stores are not what the panel says; it may have changed meanwhile: once more");
        return Result::findings;
    }
    if (options_.partial)
        return std::nullopt;
    trouble_("the staged stores are not what the panel says, again; nothing is published");
    return Result::findings;
}

std::optional<Result> Refresh::compare(Publisher *publisher)
{
    std::function<void(const Change &)> each;

    if (options_.rows)
        each = [this](const Change &change) {
            rows_.push_back(change);
        };
    if (publisher->compare({.removes = !rebuild_failed_, .prune = prune_}, each, &counts_) != 0)
        return Result::trouble;
    replaces_responder_ = publisher->replaces_responder();
    if (counts_.all() == 0 && !replaces_responder_ && !is_in_part())
        return Result::nothing_to_do;
    if (options_.dry_run)
        return Result::dry_run;
    return std::nullopt;
}

/* What was to become of them was not published. */
void Refresh::forget_handlers()
{
    counts_.forget(ChangedTable::handlers);
    std::erase_if(rows_, [](const Change &row) { return row.table == ChangedTable::handlers; });
}

std::optional<Result> Refresh::publish(Publisher *publisher, bool is_last)
{
    set_file_to_remove(FileReplacement::waiting_path(responder_db_path).c_str());

    const PublishResult result = publisher->publish();

    const bool is_again = result == PublishResult::changed_meanwhile && !is_last;

    set_file_to_remove("");
    held_.reset();
    for (const std::string &text : std::exchange(said_under_lock_, {})) {
        if (is_again)
            output_->note(text + ": once more");
        else
            output_->trouble(text);
    }
    if (result == PublishResult::failed)
        return Result::write_failed;
    if (result == PublishResult::responder_only) {
        forget_handlers();
        return Result::published_in_part;
    }
    if (result == PublishResult::changed_meanwhile)
        return Result::changed_meanwhile;
    return is_in_part() ? Result::published_in_part : Result::published;
}

std::optional<Result> Refresh::attempt(bool is_last)
{
    Publisher publisher(staging_.paths(), options_.wait_seconds,
                        {.trouble =
                             [this](const std::string &text) {
                                 if (held_)
                                     said_under_lock_.push_back(text);
                                 else
                                     output_->trouble(text);
                             },
                         .note = [this](const std::string &text) { output_->note(text); },
                         .locked =
                             [this] {
                                 held_.emplace();
                             }});

    rebuild_failed_ = false;
    look_.reset();
    rows_.clear();
    if (const auto result = stage(&publisher))
        return result;
    if (const auto result = rebuild(&publisher))
        return result;
    if (const auto result = look(is_last))
        return result;
    if (const auto result = compare(&publisher))
        return result;
    return publish(&publisher, is_last);
}

RefreshEnd Refresh::run()
{
    RefreshEnd end;

    if (begin() != 0)
        return end;
    for (int number = 1; number <= tries; number++) {
        end.result = attempt(number == tries).value();
        if (end.result != Result::findings && end.result != Result::changed_meanwhile)
            break;
    }
    if (look_ && look_->status != 2)
        output_->end_look(source_, staging_.paths().staged_responder, staging_.paths().staged_handlers,
                          *look_);
    if (is_published(end.result) || end.result == Result::dry_run) {
        for (const Change &row : rows_)
            output_->change(row);
        end.counts = counts_;
        end.replaces_responder = replaces_responder_;
    }
    if (is_published(end.result)) /* whatever the rows are, the mail server has to read them */
        check_owners(responder_db_path, handlers_db_path,
                     [this](const std::string &text) { output_->note(text); });
    return end;
}

} // namespace

RefreshEnd refresh_stores(const RefreshOptions &options, RefreshOutput *output)
{
    return Refresh(options, output).run();
}

} // namespace kolmo
