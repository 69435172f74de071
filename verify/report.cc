#include "verify/report.h"

namespace kolmo
{

void Report::find(Finding finding) const
{
    const FindingCode *const behind = finding.limit != nullptr ? finding.limit : finding.code;

    if (domains_ && !domains_->contains(finding.domain))
        return;
    finding.remedy = behind->remedy;
    finding.help = behind->help;
    switch (finding.remedy) {
    case Remedy::rebuild:
        summary_->rebuild++;
        break;
    case Remedy::panel:
        summary_->panel++;
        break;
    case Remedy::manual:
        summary_->manual++;
        break;
    }
    if (sink_.finding)
        sink_.finding(finding);
}

void Report::trouble(const std::string &text) const
{
    summary_->troubles++;
    if (sink_.trouble)
        sink_.trouble(text);
}

void Report::note(const std::string &text) const
{
    if (sink_.note)
        sink_.note(text);
}

void Report::progress(unsigned long done, unsigned long all) const
{
    if (sink_.progress)
        sink_.progress(done, all);
}

} // namespace kolmo
