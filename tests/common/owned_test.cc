#include "common/owned.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>

namespace kolmo::testing
{

namespace
{

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) >= 0;
}

Fd null_device()
{
    return Fd(open("/dev/null", O_RDWR | O_CLOEXEC));
}

TEST(Fd, NumberZeroIsADescriptorLikeAnyOther)
{
    const Fd kept(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 100));
    Fd zero(STDIN_FILENO);

    EXPECT_TRUE(zero.is_open());
    zero.reset();
    EXPECT_FALSE(is_open(STDIN_FILENO));
    EXPECT_EQ(dup2(kept.get(), STDIN_FILENO), STDIN_FILENO);
}

TEST(Fd, WhatIsReleasedStaysOpenAndMinusOneIsLeft)
{
    Fd fd = null_device();
    const Fd released(fd.release());

    EXPECT_TRUE(is_open(released.get()));
    EXPECT_EQ(fd.get(), -1);
    EXPECT_FALSE(fd.is_open());
}

TEST(Fd, AssignmentClosesWhatWasHeldAndKeepsErrno)
{
    Fd fd = null_device();
    Fd other = null_device();
    const int held = fd.get();
    const int given = other.get();

    errno = ENOENT;
    fd = std::move(other);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(fd.get(), given);
    EXPECT_FALSE(is_open(held));
    EXPECT_TRUE(is_open(given));
    fd.reset();
    EXPECT_EQ(fd.get(), -1);
    EXPECT_FALSE(is_open(given));
}

} // namespace

} // namespace kolmo::testing
