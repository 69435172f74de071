/*
 * fake_syslog: a test hears what would have gone to syslog, and nothing does.
 *
 * For test programs that use the target kolmo_fake_syslog, in which openlog, closelog, setlogmask, syslog and
 * vsyslog lead here (-Wl,--wrap=).  The mask works as in the C library: what it leaves out is not sent.
 */
#pragma once

#include <string>
#include <vector>

namespace kolmo::testing
{

class FakeSyslog
{
public:
    /* Nothing called yet, and every priority let through. */
    FakeSyslog();
    ~FakeSyslog();
    FakeSyslog(const FakeSyslog &) = delete;
    FakeSyslog &operator=(const FakeSyslog &) = delete;

    /* The calls on syslog itself since the last take: "closelog", "openlog 0x21 16 ident", "setlogmask 0x0f".
     */
    std::vector<std::string> take_calls();

    /* The lines sent since the last take, masked ones not among them: "priority text". */
    std::vector<std::string> take_lines();

    /* The ident as syslog would write it now: what the pointer given to the latest openlog points at. */
    [[nodiscard]] std::string ident() const;

    /* The same at the latest closelog. */
    [[nodiscard]] static std::string ident_at_close();
};

} // namespace kolmo::testing
