/*
 * report: what verify says, counted on its way to the sink.
 */
#pragma once

#include <optional>
#include <set>
#include <string>
#include <utility>

#include "verify/verify.h"

namespace kolmo
{

class Report
{
public:
    Report(const VerifySink &sink, VerifySummary *summary) : sink_(sink), summary_(summary) {}

    /* From here on findings of other domains are neither told nor counted. */
    void tell_only(std::set<std::string> domains) { domains_ = std::move(domains); }

    /* Sets remedy and help: those of the limit behind it, else the code's. */
    void find(Finding finding) const;

    void trouble(const std::string &text) const;
    void note(const std::string &text) const;
    void progress(unsigned long done, unsigned long all) const;

    [[nodiscard]] VerifySummary &summary() const { return *summary_; }

private:
    const VerifySink &sink_;
    VerifySummary *summary_;
    std::optional<std::set<std::string>> domains_;
};

} // namespace kolmo
