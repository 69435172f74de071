#include "refresh/lock.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kolmo
{

namespace
{

using Clock = std::chrono::steady_clock;

/* A line for the holder's process id, one for its folder. */
struct Note {
    std::string process;
    std::string folder;
};

Note read_note(int file)
{
    char bytes[4200] = "";
    const ssize_t length = ::pread(file, bytes, sizeof bytes - 1, 0);
    const std::string text(bytes, length > 0 ? static_cast<std::size_t>(length) : 0);
    const std::size_t first = text.find('\n');
    const std::size_t second = first != std::string::npos ? text.find('\n', first + 1) : first;

    if (second == std::string::npos)
        return {};
    return {text.substr(0, first), text.substr(first + 1, second - first - 1)};
}

/* /run is root's: what stands there and is no file of ours was put there by mistake. */
bool is_our_file(int file)
{
    struct stat status;

    return ::fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ::geteuid();
}

int lock_until(int file, Clock::time_point deadline)
{
    constexpr std::chrono::milliseconds pause(20);

    while (::flock(file, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK || Clock::now() >= deadline)
            return -1;
        std::this_thread::sleep_for(pause);
    }
    return 0;
}

} // namespace

int RunLock::take(int wait_seconds, const TroubleSink &trouble)
{
    const std::string path = run_lock_path;
    Fd file(::open(run_lock_path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));

    if (!file.is_open()) {
        trouble(path + " cannot be opened: " + std::strerror(errno));
        return -1;
    }
    if (!is_our_file(file.get())) {
        trouble(path + " is not this program's lock file");
        return -1;
    }
    if (lock_until(file.get(), Clock::now() + std::chrono::seconds(wait_seconds)) != 0) {
        trouble(errno == EWOULDBLOCK
                    ? "another refresh is at work (process " + read_note(file.get()).process +
                          "), longer than was waited for (--wait)"
                    : path + " cannot be locked: " + std::strerror(errno));
        return -1;
    }
    left_folder_ = read_note(file.get()).folder;
    file_ = std::move(file);
    (void)note_folder(left_folder_); /* with our process id, for those who wait */
    return 0;
}

/* What stood there before is cut off last: who is killed in between has not lost the note. */
int RunLock::note_folder(const std::string &folder)
{
    const std::string note = std::to_string(::getpid()) + '\n' + folder + '\n';

    if (::pwrite(file_.get(), note.data(), note.size(), 0) != static_cast<ssize_t>(note.size()))
        return -1;
    return ::ftruncate(file_.get(), static_cast<off_t>(note.size()));
}

} // namespace kolmo
