/*
 * owned: owners of what C interfaces hand out.
 *
 * They hold and release, nothing else: no logging, no retries, no exceptions.  Releasing keeps errno: it
 * happens on the way out of failures, too, whose errno is still to be reported.  What leaves a function for
 * its caller leaves with release() in the return statement; that line is the transfer.
 */
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include <unistd.h>

namespace kolmo
{

/* Puts errno back, at the end of the scope, to what it was at the beginning. */
class KeepErrno
{
public:
    KeepErrno() noexcept = default;
    KeepErrno(const KeepErrno &) = delete;
    ~KeepErrno() { errno = kept_; }

    [[nodiscard]] int get() const noexcept { return kept_; }

private:
    const int kept_ = errno;
};

/* Releases by the function End.  Even for free(3): POSIX has promised only lately that it keeps errno. */
template <auto End>
struct Release {
    void operator()(auto *held) const noexcept
    {
        const KeepErrno errno_kept;

        (void)End(held);
    }
};

/* Text or a plain record from malloc and its relatives, freed at the end of its scope. */
template <typename T>
using Owned = std::unique_ptr<T, Release<std::free>>;
using OwnedText = std::unique_ptr<char[], Release<std::free>>;

/* A stdio stream; the result of closing is not looked at, so only for streams that are read. */
using OwnedFile = std::unique_ptr<std::FILE, Release<std::fclose>>;

/* A list with functions of its own to begin and to free it, for the length of a scope. */
template <typename List, auto Init, auto Free>
class OwnedList
{
public:
    OwnedList() noexcept { (void)Init(&list_); }
    OwnedList(OwnedList &&) = delete;
    ~OwnedList() { Free(&list_); }

    [[nodiscard]] List *get() noexcept { return &list_; }
    void reset() noexcept
    {
        Free(&list_);
        (void)Init(&list_);
    }

private:
    List list_;
};

/* A file descriptor, -1 when there is none. */
class Fd
{
public:
    Fd() noexcept = default;
    explicit Fd(int fd) noexcept : fd_(fd) {}
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~Fd() { reset(); }

    [[nodiscard]] int get() const noexcept { return fd_; }
    [[nodiscard]] bool is_open() const noexcept { return fd_ >= 0; }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept
    {
        const KeepErrno errno_kept;

        if (fd_ >= 0)
            (void)::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

} // namespace kolmo
