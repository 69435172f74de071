#include "refresh/staging_size.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>

#include <sys/stat.h>

namespace kolmo
{

namespace
{

constexpr std::uint64_t no_limit = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kib = 1024;

/* What a row costs beside its texts: its other columns, the pages that it fills in part, its indexes. */
constexpr std::uint64_t reply_overhead = 2 * kib;
constexpr std::uint64_t handler_size = kib; /* five indexes */
constexpr std::uint64_t slack = 8 * kib * kib;

std::uint64_t file_size(const std::string &path)
{
    struct stat status;

    return ::stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

/* The number behind a word, which occurs once, or alone in the file for an empty word. */
std::optional<std::uint64_t> number_in(const std::string &path, const std::string &word)
{
    std::ifstream file(path);
    std::string read;
    std::uint64_t number = 0;

    while (read != word && file >> read)
        ;
    return file >> number ? std::optional(number) : std::nullopt;
}

/* The group's path in the one hierarchy of version 2, "0::/PATH"; empty when there is none. */
std::string control_group(const std::string &proc)
{
    std::ifstream file(proc + "/self/cgroup");
    std::string line;

    while (std::getline(file, line)) {
        if (line.starts_with("0::/"))
            return line.substr(3);
    }
    return "";
}

std::uint64_t left_in_group(const std::string &folder)
{
    const std::optional<std::uint64_t> limit = number_in(folder + "/memory.max", "");
    const std::uint64_t used = number_in(folder + "/memory.current", "").value_or(0);
    const std::uint64_t can_go = number_in(folder + "/memory.stat", "inactive_file").value_or(0);
    const std::uint64_t taken = used - std::min(used, can_go);

    if (!limit) /* "max" is no number */
        return no_limit;
    return *limit - std::min(*limit, taken);
}

} // namespace

std::uint64_t staging_size(const PanelEstimate &estimate, const std::string &responder,
                           const std::string &handlers)
{
    const std::uint64_t replies =
        std::max(file_size(responder), 2 * estimate.bytes + reply_overhead * estimate.replies);
    const std::uint64_t handler_rows = file_size(handlers) + handler_size * estimate.replies;

    return slack + replies + replies / 4 + 2 * handler_rows + handler_rows / 4;
}

std::uint64_t available_memory(const std::string &proc, const std::string &cgroup)
{
    const std::optional<std::uint64_t> kib_available = number_in(proc + "/meminfo", "MemAvailable:");
    std::uint64_t available = kib_available ? *kib_available * kib : no_limit;

    /* The host's root has no limit; what a container takes for the root may have one. */
    available = std::min(available, left_in_group(cgroup));
    for (std::filesystem::path group = control_group(proc); group.has_relative_path();
         group = group.parent_path())
        available = std::min(available, left_in_group(cgroup + group.string()));
    return available;
}

} // namespace kolmo
