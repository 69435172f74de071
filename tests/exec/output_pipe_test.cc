/* The pipe from a child and the buffer behind it, without a child. */
#include "exec/output_pipe.h"

#include <cerrno>
#include <climits>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "tests/exec/exec_support.h"
#include "tests/exec/process_faults.h"
#include "tests/support/output_capture.h"

namespace kolmo::testing
{

namespace
{

using OpenPipe = ExecTest;
using ReadPipe = ExecTest;
using ReadChunk = ExecTest;

/* A buffer on a pipe that holds these bytes; the write end is closed. */
CaptureBuffer filled(const std::string &bytes)
{
    Pipe pipe;
    CaptureBuffer buffer;

    EXPECT_EQ(open_pipe(&pipe), 0);
    EXPECT_EQ(write(pipe.write_end.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    buffer.read_end = std::move(pipe.read_end);
    return buffer;
}

TEST_F(OpenPipe, EndsAreConnected)
{
    Pipe pipe;
    char byte = 0;

    ASSERT_EQ(open_pipe(&pipe), 0);
    EXPECT_EQ(write(pipe.write_end.get(), "x", 1), 1);
    EXPECT_EQ(read(pipe.read_end.get(), &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
}

TEST_F(OpenPipe, EndsAreAboveTheStreamsEvenIfThoseAreClosedAndLeaveThemClosed)
{
    for (int closed = 1; closed < 8; closed++) {
        EXPECT_EQ(in_child([closed] {
                      Pipe pipe;
                      close_streams(closed);
                      const std::string before = open_descriptors(STDERR_FILENO + 1);
                      if (open_pipe(&pipe) != 0)
                          return std::string("failed");
                      if (pipe.read_end.get() <= STDERR_FILENO || pipe.write_end.get() <= STDERR_FILENO)
                          return std::string("an end below");
                      return std::string(open_descriptors(STDERR_FILENO + 1) == before ? "above"
                                                                                       : "a stream open");
                  }),
                  "above")
            << "closed streams, as bits: " << closed;
    }
}

TEST_F(OpenPipe, EndThatCannotBeMovedAboveTheStreamsIsAFailureThatLeavesNeitherEnd)
{
    for (int nth = 1; nth <= 2; nth++) {
        EXPECT_EQ(in_child([nth] {
                      Pipe pipe;
                      close_streams(3);
                      const std::string before = open_descriptors(0);
                      const Fault fault(Call::fcntl, nth, EMFILE);
                      const int result = open_pipe(&pipe);
                      return std::to_string(result) + (Fault::has_fired() ? ", moved" : ", never moved") +
                             (open_descriptors(0) == before ? "" : ", an end open");
                  }),
                  "-1, moved")
            << "end " << nth;
    }
}

TEST_F(ReadPipe, EmptyNonBlockingPipeIsNotAFailure)
{
    Pipe pipe;
    char byte = 0;
    std::size_t count = 1;

    ASSERT_EQ(open_pipe(&pipe), 0);
    ASSERT_EQ(fcntl(pipe.read_end.get(), F_SETFL, O_NONBLOCK), 0);
    const Output shown = output_of([&] { count = read_pipe(&pipe.read_end, &byte, 1); });
    EXPECT_EQ(count, 0U);
    EXPECT_TRUE(pipe.read_end.is_open());
    EXPECT_EQ(shown.err, "");
}

TEST_F(ReadPipe, EndOfFileClosesTheReadEnd)
{
    CaptureBuffer buffer = filled("");
    char byte = 0;

    EXPECT_EQ(read_pipe(&buffer.read_end, &byte, 1), 0U);
    EXPECT_FALSE(buffer.read_end.is_open());
}

TEST_F(ReadPipe, FailureIsToldClosesTheReadEndAndClearsErrno)
{
    Fd folder(open("/", O_RDONLY | O_DIRECTORY));
    const int number = folder.get();
    char byte = 0;
    std::size_t count = 1;
    int error = -1;
    const Output shown = output_of([&] {
        count = read_pipe(&folder, &byte, 1);
        error = errno;
    });

    EXPECT_EQ(count, 0U);
    EXPECT_EQ(error, 0);
    EXPECT_FALSE(folder.is_open());
    EXPECT_EQ(fcntl(number, F_GETFD), -1);
    EXPECT_EQ(shown.err, "fork_exec*: read(pipe) failed: Is a directory\n");
}

TEST_F(ReadChunk, CapacityGrowsBy4096OnceAndDoublesThenAsRoomRunsOut)
{
    const struct {
        int capacity;
        int length;
        int grown;
    } cases[] = {{0, 0, 4096},          {4096, 0, 4096},       {4096, 2047, 4096},
                 {4096, 2048, 8192},    {8192, 6143, 8192},    {8192, 6144, 16384},
                 {16384, 14335, 16384}, {16384, 14336, 32768}, {32768, 32767, 65536}};

    for (const auto &row : cases) {
        CaptureBuffer buffer = filled("");
        if (row.capacity > 0)
            buffer.text.reset(static_cast<char *>(std::malloc(static_cast<std::size_t>(row.capacity))));
        buffer.capacity = row.capacity;
        buffer.length = row.length;
        read_chunk(&buffer);
        EXPECT_EQ(buffer.capacity, row.grown) << row.capacity << ' ' << row.length;
    }
}

TEST_F(ReadChunk, FillsTheFreeRoomButTheTerminatorsByte)
{
    CaptureBuffer buffer = filled(std::string(10000, 'x'));

    read_chunk(&buffer);
    EXPECT_EQ(buffer.length, 4095);
    read_chunk(&buffer);
    EXPECT_EQ(buffer.length, 8191);
}

TEST_F(ReadChunk, CountsThatWouldOverflowEndTheProcessAsMissingMemory)
{
    EXPECT_EXIT(
        {
            CaptureBuffer buffer;
            buffer.capacity = INT_MAX / 2 + 1;
            buffer.length = INT_MAX / 2;
            read_chunk(&buffer);
        },
        ::testing::ExitedWithCode(1), "^Cannot allocate memory\nSystem error 12: Cannot allocate memory\n$");
}

TEST(ReleaseText, TerminatesAtTheFillLengthAndGivesNullForABufferNeverRead)
{
    CaptureBuffer never;
    CaptureBuffer read = filled("text");

    EXPECT_EQ(release_text(&never), nullptr);
    read_chunk(&read);
    const OwnedText text(release_text(&read));
    EXPECT_STREQ(text.get(), "text");
    EXPECT_EQ(read.text, nullptr);
}

} // namespace

} // namespace kolmo::testing
