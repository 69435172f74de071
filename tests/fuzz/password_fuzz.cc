/* The administrator's password file, and the text of its failure in a buffer of any size. */
#include <string>

#include "panel/panel_credentials.h"
#include "tests/fuzz/fuzz_support.h"

namespace kolmo::testing
{

namespace
{

/* What a buffer of that size holds of a text: it keeps its former content when it is of no size at all. */
std::string cut(const std::string &text, std::size_t buffer_size)
{
    return buffer_size == 0 ? "before" : text.substr(0, buffer_size - 1);
}

} // namespace

} // namespace kolmo::testing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    using namespace kolmo::testing;
    static const MemoryFile shadow("shadow");
    Input input(bytes, size);
    char error[256] = "before";
    const std::size_t error_size = input.number(sizeof error);
    const std::string content = input.rest();
    kolmo::PanelCredentials credentials;

    shadow.write(content);
    kolmo::panel_dsn_path = "/nonexistent/dsn.ini";
    kolmo::panel_shadow_path = shadow.path();

    const int result = kolmo::panel_read_credentials(&credentials, error, error_size);

    require(result == (content.empty() ? -1 : 0), "only an empty file is a failure");
    require_same(shown(credentials.password.get()),
                 content.empty() ? "NULL" : shown(content.substr(0, content.find('\n')).c_str()), "password");
    /* The system's error is the one that was left by the other file, which is missing. */
    require_same(error,
                 content.empty()
                     ? cut("Unable to read admin password file: No such file or directory", error_size)
                     : "before",
                 "text of the failure");
    return 0;
}
