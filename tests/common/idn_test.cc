#include "common/idn.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <idna.h>
#include <regex.h>

#include "common/owned.h"
#include "tests/support/output_capture.h"

namespace
{

/* What the library is made to answer; 0: it is asked. */
int faked_conversion = 0;
const char *faked_output = nullptr;
int faked_regcomp = 0;
bool faked_match_without_host = false;
int faked_regexec = 0;

char *copy_or_null(const char *text)
{
    return text != nullptr ? strdup(text) : nullptr;
}

} // namespace

extern "C" {

int __real_idna_to_ascii_8z(const char *input, char **output, int flags);
int __real_idna_to_unicode_8z8z(const char *input, char **output, int flags);
int __real_regcomp(regex_t *regex, const char *pattern, int flags);
int __real_regexec(const regex_t *regex, const char *text, std::size_t count, regmatch_t *groups, int flags);

int __wrap_idna_to_ascii_8z(const char *input, char **output, int flags)
{
    EXPECT_EQ(flags, 0);
    if (faked_conversion == 0)
        return __real_idna_to_ascii_8z(input, output, flags);
    *output = copy_or_null(faked_output);
    return faked_conversion;
}

int __wrap_idna_to_unicode_8z8z(const char *input, char **output, int flags)
{
    EXPECT_EQ(flags, 0);
    if (faked_conversion == 0)
        return __real_idna_to_unicode_8z8z(input, output, flags);
    *output = copy_or_null(faked_output);
    return faked_conversion;
}

int __wrap_regcomp(regex_t *regex, const char *pattern, int flags)
{
    return faked_regcomp != 0 ? faked_regcomp : __real_regcomp(regex, pattern, flags);
}

int __wrap_regexec(const regex_t *regex, const char *text, std::size_t count, regmatch_t *groups, int flags)
{
    const int rc = faked_regexec != 0 ? faked_regexec : __real_regexec(regex, text, count, groups, flags);

    if (faked_match_without_host)
        groups[3] = {-1, -1};
    return rc;
}

} // extern "C"

namespace kolmo::testing
{

namespace
{

using ::testing::ExitedWithCode;

/* A label of 64 characters is one too long. */
const std::string too_long(64, 'a');

/* Keeps what the library answers, the last error and errno to each test itself. */
class IdnTest : public ::testing::Test
{
public:
    IdnTest(const IdnTest &) = delete;
    IdnTest &operator=(const IdnTest &) = delete;

protected:
    IdnTest()
    {
        idn_last_error = 0;
        errno = 0;
    }
    ~IdnTest() override
    {
        faked_conversion = 0;
        faked_output = nullptr;
        faked_regcomp = 0;
        faked_regexec = 0;
        faked_match_without_host = false;
        idn_last_error = 0;
        errno = saved_errno_;
    }

private:
    int saved_errno_ = errno;
};

using IdnDomain = IdnTest;
using IdnEmail = IdnTest;

class IdnUrl : public IdnTest
{
protected:
    /* Expects url to be refused with one report, which is returned. */
    static std::string refusal_of(const std::string &url)
    {
        const char *result = "";
        const Output output = output_of([&] { result = idn_url_toascii(url.c_str()); });

        EXPECT_EQ(result, nullptr) << url;
        EXPECT_EQ(output.out, output.err) << url;
        return output.err;
    }
};

std::string text_or_none(char *text)
{
    const OwnedText owned(text);

    return owned != nullptr ? owned.get() : "(none)";
}

TEST_F(IdnDomain, Utf8BecomesAsciiAndAsciiStays)
{
    EXPECT_EQ(text_or_none(idn_to_ascii("m\u00fcnchen.example")), "xn--mnchen-3ya.example");
    EXPECT_EQ(text_or_none(idn_to_ascii("www.example.com")), "www.example.com");
}

TEST_F(IdnDomain, FailureKeepsTheCodeAndPrintsNothing)
{
    const char *result = "";
    const Output output = output_of([&] { result = idn_to_ascii(too_long.c_str()); });

    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(idn_last_error, IDNA_INVALID_LENGTH);
    EXPECT_EQ(output.err + output.out, "");
}

TEST_F(IdnDomain, BytesThatAreNoUtf8FailToo)
{
    EXPECT_EQ(idn_to_ascii("\xff\xfe"), nullptr);
    EXPECT_EQ(idn_last_error, IDNA_ICONV_ERROR);
}

TEST_F(IdnDomain, LatestOfTwoFailuresIsTheOneKept)
{
    EXPECT_EQ(idn_to_ascii(too_long.c_str()), nullptr);
    EXPECT_EQ(idn_to_ascii("\xff\xfe"), nullptr);
    EXPECT_EQ(idn_last_error, IDNA_ICONV_ERROR);
}

TEST_F(IdnDomain, SuccessLeavesTheLastErrorAlone)
{
    idn_last_error = IDNA_CONTAINS_MINUS;
    EXPECT_EQ(text_or_none(idn_to_ascii("example.com")), "example.com");
    EXPECT_EQ(text_or_none(idn_to_unicode("example.com")), "example.com");
    EXPECT_EQ(idn_last_error, IDNA_CONTAINS_MINUS);
}

TEST_F(IdnDomain, OutputOfAFailedConversionIsFreed)
{
    faked_conversion = IDNA_PUNYCODE_ERROR;
    faked_output = "half done"; /* the leak checker counts it */
    EXPECT_EQ(idn_to_ascii("example.com"), nullptr);
    EXPECT_EQ(idn_last_error, IDNA_PUNYCODE_ERROR);
}

TEST_F(IdnDomain, RunningOutOfMemoryEndsTheProcess)
{
    faked_conversion = IDNA_MALLOC_ERROR;
    EXPECT_EXIT((void)idn_to_ascii("example.com"), ExitedWithCode(1), "^Allocation failed\n$");
    EXPECT_EXIT((void)idn_to_unicode("example.com"), ExitedWithCode(1), "^Allocation failed\n$");
}

TEST_F(IdnDomain, AsciiBecomesUtf8)
{
    EXPECT_EQ(text_or_none(idn_to_unicode("xn--mnchen-3ya.example")), "m\u00fcnchen.example");
}

TEST_F(IdnDomain, FailedConversionToUtf8KeepsTheCodeAndGivesWhatTheLibraryGave)
{
    faked_conversion = IDNA_ICONV_ERROR;
    EXPECT_EQ(idn_to_unicode("example.com"), nullptr);
    EXPECT_EQ(idn_last_error, IDNA_ICONV_ERROR);
    faked_output = "as far as it came";
    EXPECT_EQ(text_or_none(idn_to_unicode("example.com")), "as far as it came");
}

TEST_F(IdnDomain, SafeConversionConverts)
{
    EXPECT_EQ(text_or_none(idn_toascii_safe("b\u00fccher.example")), "xn--bcher-kva.example");
}

TEST_F(IdnDomain, SafeConversionThatFailsEndsTheProcess)
{
    faked_conversion = IDNA_CONTAINS_MINUS;
    EXPECT_EXIT((void)idn_toascii_safe("-x.example"), ExitedWithCode(1),
                "^idn_toascii_safe\\(-x\\.example\\) failed: Contains minus\n$");
}

TEST_F(IdnEmail, LocalPartIsKeptByteForByteAndTheDomainConverted)
{
    EXPECT_EQ(text_or_none(idn_email_toascii("J\u00f6rg.%s@m\u00fcnchen.example")),
              "J\u00f6rg.%s@xn--mnchen-3ya.example");
    EXPECT_EQ(text_or_none(idn_email_toascii("\xff @example.com")), "\xff @example.com");
}

TEST_F(IdnEmail, DomainStartsAfterTheFirstAt)
{
    EXPECT_EQ(text_or_none(idn_email_toascii("\u00e9@x@m\u00fcnchen")).substr(0, 7), "\u00e9@xn--");
}

TEST_F(IdnEmail, AddressWithoutAtGivesNullAndLeavesTheLastErrorAlone)
{
    idn_last_error = IDNA_CONTAINS_MINUS;
    EXPECT_EQ(idn_email_toascii("example.com"), nullptr);
    EXPECT_EQ(idn_last_error, IDNA_CONTAINS_MINUS);
}

TEST_F(IdnEmail, DomainThatCannotBeConvertedGivesNull)
{
    EXPECT_EQ(idn_email_toascii(("box@" + too_long).c_str()), nullptr);
    EXPECT_EQ(idn_last_error, IDNA_INVALID_LENGTH);
}

TEST_F(IdnEmail, SafeConversionConverts)
{
    EXPECT_EQ(text_or_none(idn_email_toascii_safe("box@b\u00fccher.example")), "box@xn--bcher-kva.example");
}

TEST_F(IdnEmail, SafeConversionThatFailsEndsTheProcessWithItsReason)
{
    faked_conversion = IDNA_STRINGPREP_ERROR;
    EXPECT_EXIT((void)idn_email_toascii_safe("box@x"), ExitedWithCode(1),
                "^idn_email_toascii_safe\\(box@x\\) failed: Stringprep error\n$");
}

TEST_F(IdnEmail, SafeConversionWithoutAtEndsTheProcessWithTheReasonStoredLast)
{
    EXPECT_EXIT((void)idn_email_toascii_safe("box"), ExitedWithCode(1),
                "^idn_email_toascii_safe\\(box\\) failed: Success\n$");
    idn_last_error = IDNA_CONTAINS_MINUS;
    EXPECT_EXIT((void)idn_email_toascii_safe("box"), ExitedWithCode(1),
                "^idn_email_toascii_safe\\(box\\) failed: Contains minus\n$");
}

TEST_F(IdnUrl, OnlyTheHostIsConverted)
{
    const struct {
        const char *url;
        const char *converted;
    } rows[] = {
        {"https://j\u00f6rg@m\u00fcnchen.example:8443/stra\u00dfe?q=\u00fc",
         "https://j\u00f6rg@xn--mnchen-3ya.example:8443/stra\u00dfe?q=\u00fc"},
        {"http://m\u00fcnchen.example", "http://xn--mnchen-3ya.example"},
        {"https://m\u00fcnchen.example", "https://xn--mnchen-3ya.example"},
        {"ftp://m\u00fcnchen.example/", "ftp://xn--mnchen-3ya.example/"},
        {"m\u00fcnchen.example:80", "xn--mnchen-3ya.example:80"},
        {"user:pass@m\u00fcnchen.example", "user:pass@xn--mnchen-3ya.example"},
        {"example.com", "example.com"},
        {"m\u00fcnchen.example/a\nb", "xn--mnchen-3ya.example/a\nb"},
        /* What looks like a URL's other parts is not told from its host, or from its user. */
        {"HTTP://m\u00fcnchen.example/", "HTTP://m\u00fcnchen.example/"},
        {"http://:80/", "http://:80/"},
        {"http://m\u00fcnchen.example/a@m\u00fcnchen.example",
         "http://m\u00fcnchen.example/a@xn--mnchen-3ya.example"},
        {"http://x.example?m\u00fcnchen", "http://x.xn--example?mnchen-osb"},
    };

    for (const auto &row : rows) {
        const char *converted = idn_url_toascii(row.url);
        EXPECT_STREQ(converted, row.converted) << row.url;
    }
}

TEST_F(IdnUrl, ResultsShareOneBuffer)
{
    const char *first = idn_url_toascii("a.example/longer");
    const char *second = idn_url_toascii("b.example");

    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "b.example");
}

TEST_F(IdnUrl, ResultIsCutToTheBuffer)
{
    const std::string start = "http://example.com/";
    const char *converted = idn_url_toascii((start + std::string(5000, 'p')).c_str());

    ASSERT_NE(converted, nullptr);
    EXPECT_EQ(converted, start + std::string(4095 - start.size(), 'p'));
}

TEST_F(IdnUrl, UserThatFillsTheBufferLeavesNoRoomForTheRest)
{
    const std::string user(5000, 'u');
    const char *converted = idn_url_toascii((user + "@example.com/path").c_str());

    ASSERT_NE(converted, nullptr);
    EXPECT_EQ(converted, std::string(4095, 'u'));
}

TEST_F(IdnUrl, HostThatIsLongerThanTheBufferIsRefused)
{
    EXPECT_EQ(refusal_of(std::string(5000, 'h')), "idn_toascii() failed: Invalid length\n");
}

TEST_F(IdnUrl, LeadingColonMeansThatThereIsNoHost)
{
    EXPECT_EQ(refusal_of(":80/path"), "no hostname found in URL\n");
    EXPECT_EQ(refusal_of(":"), "no hostname found in URL\n");
}

TEST_F(IdnUrl, MatchWithoutAHostIsRefused)
{
    faked_match_without_host = true;
    EXPECT_EQ(refusal_of("example.com"), "no hostname found in URL\n");
}

TEST_F(IdnUrl, TextThatIsNoUrlIsRefused)
{
    EXPECT_EQ(refusal_of("/path"), "regexec() failed: No match\n");
    EXPECT_EQ(refusal_of(""), "regexec() failed: No match\n");
}

TEST_F(IdnUrl, FailedMatchingIsReportedWithItsReason)
{
    faked_regexec = REG_ESPACE;
    EXPECT_EQ(refusal_of(":80"), "regexec() failed: Memory exhausted\n");
}

TEST_F(IdnUrl, HostThatCannotBeConvertedIsRefused)
{
    EXPECT_EQ(refusal_of("http://" + too_long + "/"), "idn_toascii() failed: Invalid length\n");
    EXPECT_EQ(idn_last_error, IDNA_INVALID_LENGTH);
}

TEST_F(IdnUrl, FailedCompilationEndsTheProcess)
{
    EXPECT_EXIT(
        {
            faked_regcomp = REG_ESPACE; /* not earlier: the expected text is compiled as well */
            (void)idn_url_toascii("example.com");
        },
        ExitedWithCode(1), "^regcomp\\(\\) failed: Memory exhausted\n$");
}

TEST(IdnStrerror, EveryCodeHasItsText)
{
    const struct {
        int code;
        const char *text;
    } rows[] = {
        {0, "Success"},
        {1, "Stringprep error"},
        {2, "Punycode error"},
        {3, "Contains non-LDH characters"},
        {4, "Contains minus"},
        {5, "Invalid length"},
        {6, "ACE prefix not found"},
        {7, "Verify error"},
        {8, "ACE prefix found"},
        {9, "Iconv error"},
        {201, "Cannot allocate buffer"},
        {10, "Unknown error"},
        {200, "Unknown error"},
        {202, "Unknown error"},
        {-1, "Unknown error"},
    };

    for (const auto &row : rows)
        EXPECT_STREQ(idn_strerror(row.code), row.text) << row.code;
}

} // namespace

} // namespace kolmo::testing
