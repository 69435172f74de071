#include "refresh/output.h"
#include "verify/json_line.h"
#include "verify/output.h"

namespace kolmo
{

namespace
{

class JsonOutput : public RefreshOutput
{
public:
    explicit JsonOutput(bool quiet) : verify_(make_json_output(quiet)), quiet_(quiet) {}

    void trouble(const std::string &text) override { verify_->trouble(text); }
    void note(const std::string &text) override { verify_->note(text); }

    void begin_look() override { findings_.clear(); }
    void finding(const Finding &finding) override { findings_.push_back(finding); }

    void end_look(const DatabaseSource &source, const std::string &responder_store,
                  const std::string &handlers_store, const StagedLook &look) override
    {
        verify_->begin(source, responder_store, handlers_store);
        for (const Finding &finding : findings_)
            verify_->finding(finding);
        verify_->end(look.summary, look.seconds);
    }

    void change(const Change &change) override
    {
        print_json_line({{"change", change_name(change.kind)},
                         {"store", store_name(change.table)},
                         {"table", table_name(change.table)},
                         {"key", change.key}});
    }

    void end(const RefreshEnd &end) override
    {
        if (is_told(end.result, quiet_))
            print_json_line({{"refresh",
                              {{"published", is_published(end.result)},
                               {"reason", result_name(end.result)},
                               {"added", end.counts.of(ChangeKind::added)},
                               {"changed", end.counts.of(ChangeKind::changed)},
                               {"removed", end.counts.of(ChangeKind::removed)},
                               {"replaced", end.replaces_responder},
                               {"seconds", end.seconds}}}});
    }

private:
    std::unique_ptr<Output> verify_;
    bool quiet_;
    std::vector<Finding> findings_;
};

} // namespace

std::unique_ptr<RefreshOutput> make_refresh_json_output(bool quiet)
{
    return std::make_unique<JsonOutput>(quiet);
}

} // namespace kolmo
