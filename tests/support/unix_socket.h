/*
 * unix_socket: a test's own server, at a path.
 */
#pragma once

#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/owned.h"

namespace kolmo::testing
{

inline sockaddr_un unix_address(const std::string &path)
{
    sockaddr_un address = {};

    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

/* In place of what stands there; nobody is accepted yet. */
inline Fd listen_at(const std::string &path)
{
    const sockaddr_un address = unix_address(path);
    Fd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));

    (void)::unlink(path.c_str());
    EXPECT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener.get(), 8), 0);
    return listener;
}

} // namespace kolmo::testing
