/*
 * syslog_receiver: what arrives at the sandbox's /dev/log, read by a thread of its own.
 *
 * The socket is there from construction to destruction.  Somebody has to read it all the time: the kernel
 * keeps a few datagrams only, and a program that logs more would wait for the test that waits for it.
 */
#pragma once

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/owned.h"

namespace kolmo::testing
{

class SyslogReceiver
{
public:
    /* Outside of the sandbox the test fails and nothing is bound. */
    SyslogReceiver();
    ~SyslogReceiver();
    SyslogReceiver(const SyslogReceiver &) = delete;
    SyslogReceiver &operator=(const SyslogReceiver &) = delete;

    /*
     * The datagrams since the last take, oldest first, each whole but for its time: "<19>ident[42]: text".
     * All that was sent before the call is there.  One without a time in syslog(3)'s form fails the test.
     */
    std::vector<std::string> take();

private:
    void receive_until_shut_down();
    void receive_waiting();

    Fd socket_;
    std::mutex mutex_;
    std::vector<std::string> datagrams_;
    std::thread reader_;
};

} // namespace kolmo::testing
