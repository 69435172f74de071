#include "tests/support/syslog_receiver.h"

#include <cstring>
#include <utility>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/program_text.h"
#include "tests/support/sandbox.h"
#include "tests/support/unix_socket.h"

namespace kolmo::testing
{

namespace
{

const char log_path[] = "/dev/log";

Fd bind_log()
{
    Fd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = unix_address(log_path);

    (void)::unlink(log_path);
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0)
        << log_path << ": " << std::strerror(errno);
    return fd;
}

std::string without_time(const std::string &datagram)
{
    const std::string rest =
        replaced(datagram, "^(<[0-9]+>)[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} ", "$1");

    EXPECT_NE(rest, datagram) << "not in syslog's form";
    return rest;
}

} // namespace

SyslogReceiver::SyslogReceiver()
{
    if (!in_sandbox()) {
        ADD_FAILURE() << "run this in tools/sandbox";
        return;
    }
    socket_ = bind_log();
    reader_ = std::thread(&SyslogReceiver::receive_until_shut_down, this);
}

SyslogReceiver::~SyslogReceiver()
{
    if (!reader_.joinable())
        return;
    (void)::shutdown(socket_.get(), SHUT_RDWR);
    reader_.join();
    (void)::unlink(log_path);
}

void SyslogReceiver::receive_until_shut_down()
{
    pollfd waiting = {socket_.get(), POLLIN, 0};

    while (::poll(&waiting, 1, -1) >= 0 && (waiting.revents & POLLHUP) == 0)
        receive_waiting();
}

/* Everything that is there now; the lock keeps the order when both threads come for it. */
void SyslogReceiver::receive_waiting()
{
    const std::lock_guard lock(mutex_);
    char text[65536];
    ssize_t length;

    while ((length = ::recv(socket_.get(), text, sizeof text, MSG_DONTWAIT)) > 0)
        datagrams_.emplace_back(text, static_cast<std::size_t>(length));
}

std::vector<std::string> SyslogReceiver::take()
{
    receive_waiting();

    const std::lock_guard lock(mutex_);
    std::vector<std::string> taken = std::exchange(datagrams_, {});

    for (std::string &datagram : taken)
        datagram = without_time(datagram);
    return taken;
}

} // namespace kolmo::testing
