/* The DSN file: whatever stands in it, a value comes without blanks around it and without a comment. */
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

#include "common/ini_file.h"
#include "common/owned.h"
#include "common/text.h"

namespace
{

void check_value(const char *value)
{
    const std::size_t length = std::strlen(value);

    if (std::strchr(value, ';') != nullptr ||
        (length > 0 && (std::isspace(static_cast<unsigned char>(value[0])) != 0 ||
                        std::isspace(static_cast<unsigned char>(value[length - 1])) != 0)))
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *bytes, std::size_t size)
{
    const kolmo::Fd file(memfd_create("ini", 0));

    if (write(file.get(), bytes, size) != static_cast<ssize_t>(size))
        std::abort();

    const kolmo::OwnedText path(kolmo::xasprintf("/proc/self/fd/%d", file.get()));
    const kolmo::OwnedText value(kolmo::ini_get_value(path.get(), "kolmo", "password"));

    if (value != nullptr)
        check_value(value.get());
    return 0;
}
