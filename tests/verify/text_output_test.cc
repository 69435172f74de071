/* What people read. */
#include <algorithm>
#include <sstream>

#include <gtest/gtest.h>

#include "tests/support/output_capture.h"
#include "verify/output.h"
#include "verify/printable.h"
#include "verify/report.h"

namespace kolmo
{

namespace
{

TEST(TextOutput, NothingIsWiderThanAHundredColumns)
{
    const testing::Output printed = testing::output_of([] {
        const std::unique_ptr<Output> output = make_text_output("verify", false, false);
        const VerifySink sink = {
            .finding = [&](const Finding &finding) { output->finding(finding); },
            .trouble = {},
            .note = {},
            .progress = {},
        };
        VerifySummary summary;
        const Report report(sink, &summary);

        for (const FindingCode *const code : finding_codes())
            report.find({.code = code, .domain = "a.test", .address = "info@a.test"});
        report.find({.code = finding_codes()[0],
                     .domain = std::string(187, 'x'),
                     .address = std::string(187, 'y'),
                     .column = "body",
                     .expected = std::string(187, 'e'),
                     .found = std::string(187, 'f')});
        output->end(summary, 0);
    });
    std::istringstream lines(printed.out);
    std::string line;
    std::size_t helps = 0;

    while (std::getline(lines, line)) {
        EXPECT_LE(columns_of(line), 100u) << line;
        helps += line.starts_with("  rebuild  ") || line.starts_with("  panel    ") ||
                 line.starts_with("  manual   ");
    }
    EXPECT_GT(helps, 20u) << printed.out;
}

TEST(TextOutput, TheEndSaysHowMuchWasLookedAtAndFound)
{
    const struct {
        unsigned long findings;
        const char *words;
    } rows[] = {{0, "no finding\n"},
                {1, "1 finding; 1 a rebuild mends\n"},
                {1234567, "1,234,567 findings; 1,234,567 a rebuild"}};

    for (const auto &row : rows) {
        const testing::Output printed = testing::output_of([&] {
            VerifySummary summary;

            summary.rebuild = row.findings;
            make_text_output("verify", false, false)->end(summary, 0);
        });

        EXPECT_NE(printed.out.find(row.words), std::string::npos) << printed.out;
    }
}

} // namespace

} // namespace kolmo
