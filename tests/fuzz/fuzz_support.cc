#include "tests/fuzz/fuzz_support.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <sanitizer/common_interface_defs.h>
#include <sys/mman.h>
#include <unistd.h>

#include "common/log.h"

namespace kolmo::testing
{

namespace
{

/* The terminal, whatever standard error leads to meanwhile. */
const int terminal = dup(STDERR_FILENO);
const int saved_output = dup(STDOUT_FILENO);

Lines log_lines;

[[gnu::format(printf, 2, 3)]] void keep_message(int priority, const char *format, ...)
{
    char text[16384];
    std::va_list arguments;

    va_start(arguments, format);
    (void)std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    log_lines.push_back(std::to_string(priority) + ' ' + text);
}

const MemoryFile &stream_in_memory(int stream)
{
    static const MemoryFile out("out");
    static const MemoryFile err("err");

    return stream == STDOUT_FILENO ? out : err;
}

} // namespace

void require(bool agreed, const char *what)
{
    if (agreed)
        return;
    (void)dprintf(terminal, "code and model differ: %s\n", what);
    std::abort();
}

void require_same(const std::string &code, const std::string &model, const char *what)
{
    if (code != model)
        (void)dprintf(terminal, "code:  [%s]\nmodel: [%s]\n", code.c_str(), model.c_str());
    require(code == model, what);
}

std::string shown(const char *text)
{
    return text != nullptr ? std::string(1, '=') + text : "NULL";
}

void record_log()
{
    log_lines.clear();
    log_message = keep_message;
}

Lines take_log()
{
    return std::exchange(log_lines, {});
}

MemoryFile::MemoryFile(const char *name)
    : descriptor_(memfd_create(name, MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(descriptor_))
{
    require(descriptor_ >= 0, "there is memory for a file");
}

void MemoryFile::write(const std::string &content) const
{
    const auto size = static_cast<ssize_t>(content.size());

    require(ftruncate(descriptor_, 0) == 0 && pwrite(descriptor_, content.data(), content.size(), 0) == size,
            "a file in memory takes what is written");
}

std::string MemoryFile::take() const
{
    const off_t end = lseek(descriptor_, 0, SEEK_END);
    std::string content(static_cast<std::size_t>(end), '\0');

    require(pread(descriptor_, content.data(), content.size(), 0) == end && ftruncate(descriptor_, 0) == 0 &&
                lseek(descriptor_, 0, SEEK_SET) == 0,
            "a file in memory gives what was written");
    return content;
}

StreamsInMemory::StreamsInMemory()
{
    __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<std::intptr_t>(terminal)));
    for (int stream : {STDOUT_FILENO, STDERR_FILENO})
        (void)dup2(stream_in_memory(stream).descriptor(), stream);
}

StreamsInMemory::~StreamsInMemory()
{
    (void)dup2(saved_output, STDOUT_FILENO);
    (void)dup2(terminal, STDERR_FILENO);
}

std::string StreamsInMemory::take_out()
{
    return stream_in_memory(STDOUT_FILENO).take();
}

std::string StreamsInMemory::take_err()
{
    return stream_in_memory(STDERR_FILENO).take();
}

std::size_t Input::number(std::size_t count)
{
    return is_empty() ? 0 : static_cast<unsigned char>(bytes_[at_++]) % count;
}

std::string Input::text()
{
    const std::string found = until_zero(bytes_.substr(std::min(at_, bytes_.size())));

    at_ += found.size() + 1;
    return found;
}

std::string Input::rest()
{
    const std::size_t start = std::min(std::exchange(at_, bytes_.size()), bytes_.size());

    return bytes_.substr(start);
}

std::string until_zero(const std::string &text)
{
    return text.c_str();
}

Lines lines_of(const std::string &content)
{
    Lines lines;

    for (std::size_t start = 0; start < content.size();) {
        const std::size_t newline = content.find('\n', start);
        const std::size_t end = newline == std::string::npos ? content.size() : newline + 1;

        lines.push_back(content.substr(start, end - start));
        start = end;
    }
    return lines;
}

bool is_blank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

long leading_number(const std::string &text)
{
    std::size_t at = 0;

    while (at < text.size() && is_blank(text[at]))
        at++;

    const bool negative = at < text.size() && text[at] == '-';
    __int128 number = 0;

    if (at < text.size() && (text[at] == '-' || text[at] == '+'))
        at++;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; at++) {
        if (number <= LONG_MAX) /* beyond that more digits change nothing */
            number = number * 10 + (text[at] - '0');
    }
    if (negative)
        number = -number;
    return number > LONG_MAX ? LONG_MAX : number < LONG_MIN ? LONG_MIN : static_cast<long>(number);
}

} // namespace kolmo::testing
