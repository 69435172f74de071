/*
 * output_pipe: the pipe that a child writes to, and the text that is collected from it.
 */
#pragma once

#include <cstddef>

#include <sys/types.h>

#include "common/owned.h"

namespace kolmo
{

struct Pipe {
    Fd read_end;
    Fd write_end;
};

/*
 * A new pipe whose ends are above the standard streams, also where one of those is closed: as a child's
 * stream such an end would be taken for the inherited one or overwritten.
 *
 * Returns 0; or -1 with errno set, *pipe unchanged.  Silent.
 */
[[nodiscard]] int open_pipe(Pipe *pipe);

/*
 * One read of at most `size` bytes from a pipe's read end, which is closed at the end of file and after a
 * failure.  A failure says "fork_exec*: read(pipe) failed: ..." on standard error and clears errno; that a
 * non-blocking pipe has nothing yet is none.
 *
 * Returns the number of bytes, 0 when there are none.
 */
[[nodiscard]] std::size_t read_pipe(Fd *read_end, char *bytes, std::size_t size);

/*
 * Text collected from a pipe.  Empty it has no memory; once it was read from it has, even if nothing came.
 * The counts are 32 bits wide and signed: a text ends before 2 GiB.
 */
struct CaptureBuffer {
    OwnedText text;
    int capacity = 0;
    int length = 0;
    Fd read_end; /* none once the pipe has come to its end */
};

/*
 * Read once from the buffer's open pipe, as read_pipe does, with room for at least 2048 bytes.
 *
 * When memory (or the counts' range) is exhausted the process ends with status 1 through report_error:
 * "Cannot allocate memory".
 */
void read_chunk(CaptureBuffer *buffer);

/* The text, terminated, released to the caller; null when the pipe was never read.  Free with free. */
[[nodiscard]] char *release_text(CaptureBuffer *buffer);

} // namespace kolmo
