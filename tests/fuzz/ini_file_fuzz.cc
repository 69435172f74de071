/*
 * ini_file_fuzz: any bytes for the INI reader.  Run it as in
 *
 *     build/fuzz/tests/fuzz/ini_file_fuzz -max_total_time=60
 */
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

#include "common/ini_file.h"
#include "common/owned.h"

namespace
{

using namespace kolmo;

void require(bool holds)
{
    if (!holds)
        std::abort();
}

bool is_trimmed(const std::string &line)
{
    const auto is_space = [](char c) {
        return std::isspace(static_cast<unsigned char>(c)) != 0;
    };

    return line.empty() ||
           (!is_space(line.front()) && !is_space(line.back()) && line.find(';') == std::string::npos);
}

void check_trimming(std::string line)
{
    const std::size_t length = trim_ini_line(line.data());

    require(length == std::strlen(line.c_str()));
    line.resize(length);
    require(is_trimmed(line));
    require(trim_ini_line(line.data()) == length);
}

void check_lookup(const std::string &content)
{
    const Fd file(memfd_create("ini", MFD_CLOEXEC));
    const std::string path = "/proc/self/fd/" + std::to_string(file.get());

    require(write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    const OwnedText value(ini_get_value(path.c_str(), "s", "k"));
    require(value == nullptr || is_trimmed(value.get()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string content(reinterpret_cast<const char *>(data), size);

    check_trimming(content);
    check_lookup(content);
    check_lookup("[s]\nk=" + content);
    return 0;
}
