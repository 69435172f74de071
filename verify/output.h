/*
 * output: what a run says on standard output, for people or for programs.
 */
#pragma once

#include <memory>
#include <string>

#include "verify/database_source.h"
#include "verify/verify.h"

namespace kolmo
{

class Output
{
public:
    Output() = default;
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;
    virtual ~Output() = default;

    /* First, before anything is asked. */
    virtual void begin(const DatabaseSource &source, const std::string &responder_store,
                       const std::string &handlers_store) = 0;
    virtual void finding(const Finding &finding) = 0;
    virtual void trouble(const std::string &text) = 0;
    virtual void note(const std::string &text) = 0;

    /* Last. */
    virtual void end(const VerifySummary &summary, double seconds) = 0;
};

/*
 * For people: findings by domain, at most 100 columns, printed at the end; trouble and notes go to standard
 * error at once, behind the program's name.  quiet leaves all out but findings and trouble.
 */
[[nodiscard]] std::unique_ptr<Output> make_text_output(const char *program, bool quiet, bool color);

/* For programs: an object a line, as it comes. */
[[nodiscard]] std::unique_ptr<Output> make_json_output(bool quiet);

} // namespace kolmo
