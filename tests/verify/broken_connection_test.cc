/* The panel's server goes away at any byte of what it says: that is trouble, and never a finding. */
#include <algorithm>
#include <array>
#include <limits>
#include <thread>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/owned.h"
#include "panel/panel_db.h"
#include "tests/support/sandbox.h"
#include "tests/support/unix_socket.h"
#include "tests/verify/verify_world.h"

namespace kolmo
{

namespace
{

using namespace testing;

const std::string broken_socket = "/run/broken.sock";

/* Stands between one client and the server, and hangs up after so many bytes from the server. */
class BreakingServer
{
public:
    explicit BreakingServer(std::size_t bytes)
        : listener_(listen_at(broken_socket)), left_(bytes), thread_([this] { serve(); })
    {
    }
    ~BreakingServer() { (void)end(); }
    BreakingServer(const BreakingServer &) = delete;
    BreakingServer &operator=(const BreakingServer &) = delete;

    /* The bytes that it might still have passed on; the client has gone. */
    std::size_t end()
    {
        (void)::shutdown(listener_.get(), SHUT_RDWR); /* nobody may have called */
        if (thread_.joinable())
            thread_.join();
        return left_;
    }

private:
    void serve()
    {
        const sockaddr_un address = unix_address(server_socket);
        const Fd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        const Fd server(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));

        if (!client.is_open())
            return;
        EXPECT_EQ(::connect(server.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        while (left_ > 0) {
            std::array<pollfd, 2> ends = {{{client.get(), POLLIN, 0}, {server.get(), POLLIN, 0}}};

            if (::poll(ends.data(), ends.size(), -1) < 0)
                return;
            if (ends[0].revents != 0 && pass(client.get(), server.get(), buffer_.size()) == 0)
                return;
            if (ends[1].revents != 0)
                left_ -= pass(server.get(), client.get(), left_);
        }
    }

    /* How many bytes: none at the end. */
    std::size_t pass(int from, int to, std::size_t most)
    {
        const ssize_t length = ::read(from, buffer_.data(), std::min(most, buffer_.size()));

        if (length <= 0 ||
            ::send(to, buffer_.data(), static_cast<std::size_t>(length), MSG_NOSIGNAL) != length)
            return 0;
        return static_cast<std::size_t>(length);
    }

    Fd listener_;
    std::size_t left_;
    std::array<char, 4096> buffer_ = {};
    std::thread thread_;
};

int look_over_broken_socket(VerifySummary *summary)
{
    const PanelConnection connection(mysql_init(nullptr));

    if (mysql_real_connect(connection.get(), nullptr, "admin",
                           sandbox_variable("KOLMO_SANDBOX_PASSWORD").c_str(), "qsx", 0,
                           broken_socket.c_str(), 0) == nullptr)
        return 2;
    return verify_stores(connection.get(), {}, {}, summary);
}

class BrokenConnectionTest : public VerifyTest
{
protected:
    /* Looks at stores that are right, over connections that break. */
    void break_at_each(std::size_t step, const std::string &panel_rows);
};

void BrokenConnectionTest::break_at_each(std::size_t step, const std::string &panel_rows)
{
    constexpr std::size_t enough = std::numeric_limits<std::size_t>::max();
    VerifySummary whole;
    BreakingServer server(enough);

    panel->execute(panel_rows);
    ASSERT_EQ(rebuild().status, 0);
    ASSERT_EQ(look_over_broken_socket(&whole), 0);

    /* The last packet says that the transaction is over: all has been read then. */
    const std::size_t bytes = enough - server.end() - 11;

    for (std::size_t some = 0; some < bytes; some += step) {
        const BreakingServer broken(some);
        VerifySummary summary;

        EXPECT_EQ(look_over_broken_socket(&summary), 2) << some << " of " << bytes;
        EXPECT_EQ(summary.findings(), 0U) << some << " of " << bytes;
    }
}

TEST_F(BrokenConnectionTest, IsTroubleWhereverItBreaks)
{
    break_at_each(7, sql_domain(1, "a.test") + sql_alias(1, "b.test") + sql_answering(1, 1, "info") +
                         sql_answering(2, 1, "sales") +
                         "INSERT INTO resp_forward VALUES (1001, 'f@x.test');"
                         "INSERT INTO resp_attach VALUES (1001, 'one.pdf');" +
                         sql_headers(R"({"X-A": "1"})"));
}

/* Domains are asked for by 256. */
TEST_F(BrokenConnectionTest, IsTroubleInEachBatchOfDomains)
{
    break_at_each(997, sql_many_domains(258));
}

} // namespace

} // namespace kolmo
