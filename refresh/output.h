/*
 * output: what a refresh says, for people or for programs.
 */
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "refresh/change.h"
#include "verify/database_source.h"
#include "verify/verify.h"

namespace kolmo
{

/* How a refresh ended, and whether the live stores are now what the staged ones were. */
enum class Result {
    published,
    nothing_to_do,
    published_in_part,
    dry_run, /* there is something to do */
    rebuild_failed,
    findings,
    changed_meanwhile,
    outside_utility,
    write_failed,
    trouble
};

/* "published", "nothing-to-do" ..., as JSON has it; stable. */
[[nodiscard]] const char *result_name(Result result);
[[nodiscard]] bool is_published(Result result);

/* The exit status. */
[[nodiscard]] int result_status(Result result);

/* Whether it is told how it ended: what was published in part is told in any case. */
[[nodiscard]] bool is_told(Result result, bool quiet);

/* A look at the staged stores. */
struct StagedLook {
    int status = 2; /* as verify_stores returned it */
    VerifySummary summary;
    double seconds = 0;
};

struct RefreshEnd {
    Result result = Result::trouble;
    ChangeCounts counts;
    bool replaces_responder = false; /* the whole file, whatever rows differ */
    double seconds = 0;
};

class RefreshOutput
{
public:
    RefreshOutput() = default;
    RefreshOutput(const RefreshOutput &) = delete;
    RefreshOutput &operator=(const RefreshOutput &) = delete;
    virtual ~RefreshOutput() = default;

    /* At once. */
    virtual void trouble(const std::string &text) = 0;
    virtual void note(const std::string &text) = 0;

    /* A look begins: what the one before found is forgotten. */
    virtual void begin_look() = 0;

    /* Kept until end_look; for people only as much as is shown of it. */
    virtual void finding(const Finding &finding) = 0;

    /* Where the last look was, and what it found. */
    virtual void end_look(const DatabaseSource &source, const std::string &responder_store,
                          const std::string &handlers_store, const StagedLook &look) = 0;

    virtual void change(const Change &change) = 0;

    /* Last. */
    virtual void end(const RefreshEnd &end) = 0;
};

/* For people: troubles and notes on standard error, the rest on standard output.  quiet leaves out notes,
   what mends findings, and how it ended unless that was in part. */
[[nodiscard]] std::unique_ptr<RefreshOutput> make_refresh_text_output(bool quiet, bool color);

/* For programs: an object a line, everything on standard output. */
[[nodiscard]] std::unique_ptr<RefreshOutput> make_refresh_json_output(bool quiet);

} // namespace kolmo
