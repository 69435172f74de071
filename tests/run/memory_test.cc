/*
 * How much memory a run needs: that of one domain at a time, however many there are; a refresh, no more for
 * what it finds.
 *
 * A sanitizer build's memory says nothing about the program's: this is built without them only.
 */
#include "tests/run/run_fixture.h"

#include <cstdio>

namespace kolmo::testing
{

namespace
{

constexpr long mebibyte = 1024; /* in KiB, as all numbers here */

class MemoryRun : public RunTest
{
protected:
    /* Domains of ten mailboxes; every mailbox has a reply of five kilobytes and an attachment. */
    void fill(int domains)
    {
        panel->reset();
        panel->execute("INSERT INTO domains SELECT seq, CONCAT('domain-', seq, '.example') FROM seq_1_to_" +
                       std::to_string(domains) +
                       "; INSERT INTO DomainServices SELECT id, 'mail' FROM domains; "
                       "INSERT INTO mail (dom_id, mail_name, autoresponder) "
                       "SELECT id, CONCAT('mailbox-', seq), 'true' FROM domains, seq_1_to_10; "
                       "INSERT INTO mail_resp (id, mn_id, resp_name, text) SELECT id, id, 'default', "
                       "REPEAT('x', 5000) FROM mail; "
                       "INSERT INTO resp_attach SELECT id, 'file.txt' FROM mail_resp");
    }

    static ProgramResult measure(const std::string &measured, long *peak)
    {
        const std::string file = "/run/peak";
        Program program(KOLMO_PEAK_MEMORY,
                        {.argv = {"peak_memory", file, measured}, .deadline = std::chrono::seconds(60)});
        const ProgramResult result = program.finish();

        *peak = std::stol(read_file(file));
        return result;
    }

    /* The peak of a run that has done its work. */
    long peak_of(int domains)
    {
        long peak = 0;

        fill(domains);

        const ProgramResult result = measure(KOLMO_MEASURED_PROGRAM, &peak);

        expect_result(result, 0);
        EXPECT_EQ(query_store(responder_store, "SELECT count(*) FROM autoresponder"),
                  std::vector<std::string>{std::to_string(domains * 10)});
        std::printf("%d mailboxes in %d domains: %ld KiB, %ld ms\n", domains * 10, domains, peak,
                    static_cast<long>(result.duration.count()));
        return peak;
    }
};

} // namespace

TEST_F(MemoryRun, FourTimesTheDomainsNeedNoMoreMemory)
{
    /* Both are more than SQLite keeps of a file in memory, or the smaller one would need less of that. */
    const long few = peak_of(120);
    const long many = peak_of(480);

    EXPECT_LT(many, few + mebibyte / 2);
    EXPECT_LT(many, 16 * mebibyte);
}

/* Each text has a character that a rebuild loses. */
TEST_F(MemoryRun, RefreshKeepsOfWhatItFindsWhatItShows)
{
    long peak = 0;

    fill(30);
    expect_result(measure(KOLMO_MEASURED_PROGRAM, &peak), 0);
    panel->execute(
        "UPDATE mail_resp SET text = CONCAT(CONVERT(UNHEX('F09F8F96') USING utf8mb4), REPEAT('x', 100000))");

    const ProgramResult result = measure(KOLMO_MEASURED_REFRESH, &peak);

    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("600 findings"), std::string::npos) << result.out;
    EXPECT_LT(peak, 40 * mebibyte);
}

} // namespace kolmo::testing
