/*
 * staging_size: how much room a staged rebuild needs, and how much there is.
 */
#pragma once

#include <cstdint>
#include <string>

#include "refresh/panel_estimate.h"

namespace kolmo
{

/*
 * What both staged stores, a copy of the handlers store and their journals take, in bytes, with room to
 * spare.
 *
 * responder, handlers  the live stores' files; one that is missing counts nothing
 */
[[nodiscard]] std::uint64_t staging_size(const PanelEstimate &estimate, const std::string &responder,
                                         const std::string &handlers);

/*
 * How much memory this process can still take: what the kernel calls MemAvailable (proc(5)), less where a
 * control group of the process or one above it leaves less (memory.max, memory.current and what of it is
 * pages of files that can go; https://docs.kernel.org/admin-guide/cgroup-v2.html).
 *
 * proc, cgroup  where these file systems are mounted
 * What cannot be read sets no limit.
 */
[[nodiscard]] std::uint64_t available_memory(const std::string &proc = "/proc",
                                             const std::string &cgroup = "/sys/fs/cgroup");

} // namespace kolmo
