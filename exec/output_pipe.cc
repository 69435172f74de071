#include "exec/output_pipe.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "common/report_error.h"

namespace kolmo
{

namespace
{

constexpr int first_capacity = 4096;
constexpr int min_free = 2048;

/* The lowest free number above the standard streams. */
int renumber(Fd *fd)
{
    const int moved = ::fcntl(fd->get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);

    if (moved < 0)
        return -1;
    fd->reset(moved);
    return 0;
}

int next_capacity(int capacity)
{
    if (capacity <= first_capacity)
        return capacity + first_capacity;
    return capacity <= INT_MAX / 2 ? capacity * 2 : -1;
}

void make_room(CaptureBuffer *buffer)
{
    if (buffer->capacity - min_free > buffer->length)
        return;
    const int capacity = next_capacity(buffer->capacity);
    char *grown = nullptr;
    if (capacity > 0)
        grown = static_cast<char *>(std::realloc(buffer->text.get(), static_cast<std::size_t>(capacity)));
    else
        errno = ENOMEM;
    if (grown == nullptr)
        report_fatal("Cannot allocate memory");
    (void)buffer->text.release(); /* realloc has taken it */
    buffer->text.reset(grown);
    buffer->capacity = capacity;
}

} // namespace

int open_pipe(Pipe *pipe)
{
    int ends[2];

    if (::pipe(ends) != 0)
        return -1;
    Pipe opened{Fd(ends[0]), Fd(ends[1])};
    for (Fd *end : {&opened.read_end, &opened.write_end}) {
        if (end->get() <= STDERR_FILENO && renumber(end) != 0)
            return -1;
    }
    *pipe = std::move(opened);
    return 0;
}

std::size_t read_pipe(Fd *read_end, char *bytes, std::size_t size)
{
    const ssize_t count = ::read(read_end->get(), bytes, size);

    if (count > 0)
        return static_cast<std::size_t>(count);
    if (count == 0) {
        read_end->reset();
    } else if (errno != EAGAIN) {
        read_end->reset();
        (void)std::fprintf(stderr, "fork_exec*: read(pipe) failed: %s\n", std::strerror(errno));
        errno = 0;
    }
    return 0;
}

void read_chunk(CaptureBuffer *buffer)
{
    make_room(buffer);
    const int room = buffer->capacity - buffer->length - 1; /* one byte is the terminator's */
    char *end = buffer->text.get() + buffer->length;
    buffer->length += static_cast<int>(read_pipe(&buffer->read_end, end, static_cast<std::size_t>(room)));
}

char *release_text(CaptureBuffer *buffer)
{
    if (buffer->text != nullptr)
        buffer->text[static_cast<std::size_t>(buffer->length)] = '\0';
    return buffer->text.release();
}

} // namespace kolmo
