#include "tests/verify/verify_world.h"

#include <algorithm>
#include <cstdlib>

#include "panel/panel_db.h"
#include "restore/program_flow.h"
#include "tests/support/output_capture.h"
#include "tests/support/sandbox.h"

namespace kolmo::testing
{

bool Look::has(const std::string &code) const
{
    return std::any_of(findings.begin(), findings.end(),
                       [&](const std::string &line) { return line.starts_with(code + ' '); });
}

Lines Look::codes() const
{
    Lines names;

    for (const std::string &line : findings)
        names.push_back(line.substr(0, line.find(' ')));
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

std::string line_of(const Finding &finding)
{
    std::string line = std::string(finding.code->name) + ' ' + remedy_name(finding.remedy);

    for (const std::string &part : {finding.address, finding.column})
        line += part.empty() ? "" : ' ' + part;
    if (finding.expected || finding.found)
        line += ": " + finding.expected.value_or("") + " > " + finding.found.value_or("");
    return line;
}

Look look(const VerifyOptions &options)
{
    Look seen;
    char reason[4097] = "";
    const PanelConnection panel(panel_db_connect_ex(reason, sizeof reason));
    const VerifySink sink = {
        .finding =
            [&](const Finding &finding) {
                seen.findings.push_back(line_of(finding));
                if (!finding.command.empty())
                    seen.commands.push_back(finding.command);
            },
        .trouble = [&](const std::string &text) { seen.troubles.push_back(text); },
        .note = [&](const std::string &text) { seen.notes.push_back(text); },
        .progress = {},
    };

    EXPECT_NE(panel, nullptr) << reason;
    if (panel != nullptr)
        seen.status = verify_stores(panel.get(), options, sink, &seen.summary);
    std::sort(seen.findings.begin(), seen.findings.end());
    EXPECT_EQ(seen.summary.findings(), seen.findings.size());
    return seen;
}

Rebuild rebuild()
{
    Rebuild run;

    run.said = output_of([&] { run.status = rebuild_responders("mail_responders_rebuild"); }).err;
    return run;
}

void run_shell(const std::string &command)
{
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

std::string sql_domain(int id, const std::string &name)
{
    const std::string number = std::to_string(id);

    return "INSERT INTO domains VALUES (" + number + ", " + sql_literal(name) +
           "); INSERT INTO DomainServices VALUES (" + number + ", 'mail');";
}

std::string sql_alias(int domain, const std::string &name)
{
    return "INSERT INTO domain_aliases VALUES (" + std::to_string(domain) + ", " + sql_literal(name) + ");";
}

std::string sql_mailbox(int id, int domain, const std::string &name)
{
    return "INSERT INTO mail VALUES (" + std::to_string(id) + ", " + std::to_string(domain) + ", " +
           sql_literal(name) + ", 'true');";
}

std::string sql_reply(int mailbox, const std::string &subject)
{
    return "INSERT INTO mail_resp (id, mn_id, resp_name, subject, text) VALUES (" +
           std::to_string(mailbox + 1000) + ", " + std::to_string(mailbox) + ", 'default', " +
           sql_literal(subject) + ", 'Reply of " + std::to_string(mailbox) + "');";
}

std::string sql_answering(int id, int domain, const std::string &name)
{
    return sql_mailbox(id, domain, name) + sql_reply(id);
}

std::string sql_headers(const std::string &json)
{
    return "REPLACE INTO ServiceNodeConfiguration VALUES ('auto_reply_headers', " + sql_literal(json) +
           ", 1, 'mailServer');";
}

std::string sql_many_domains(int count)
{
    return "INSERT INTO domains SELECT 1000 + seq, CONCAT('d', seq, '.test') FROM seq_1_to_" +
           std::to_string(count) +
           "; INSERT INTO DomainServices SELECT id, 'mail' FROM domains WHERE id > 1000"
           "; INSERT INTO mail SELECT id, id, 'info', 'true' FROM domains WHERE id > 1000"
           "; INSERT INTO mail_resp (mn_id, resp_name, subject) SELECT id, 'default', 'Away' FROM mail "
           "WHERE id > 1000;";
}

int number_from_environment(const char *name, int fallback)
{
    const char *const text = std::getenv(name);

    return text != nullptr ? std::atoi(text) : fallback;
}

void VerifyTest::SetUp()
{
    ASSERT_TRUE(in_sandbox()) << "run this in tools/sandbox";
    reset_panel_files();
    panel = std::make_unique<PanelDatabase>();
    panel->reset();
}

void VerifyTest::clear_panel()
{
    panel->execute(
        "DELETE FROM domains; DELETE FROM DomainServices; DELETE FROM mail; DELETE FROM mail_resp; "
        "DELETE FROM resp_forward; DELETE FROM resp_attach; DELETE FROM domain_aliases; "
        "DELETE FROM ServiceNodeConfiguration; DELETE FROM misc");
}

} // namespace kolmo::testing
