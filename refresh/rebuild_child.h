/*
 * rebuild_child: mail_responders_rebuild, run where it takes the staged stores for the live ones.
 *
 * Between this process and the rebuild stands a keeper: the first process of a process namespace of its own,
 * so that whatever the rebuild has started ends with it, and one that the kernel kills when this process
 * ends, however it does.  Its mount namespace has the staged folders laid over the live ones.  In the
 * namespace the rebuild has this process's number, which is what it says to syslog.
 */
#pragma once

#include <string>

#include <sys/types.h>

#include "common/owned.h"
#include "verify/store_copy.h"

namespace kolmo
{

struct RebuildCommand {
    std::string program;          /* its path */
    std::string responder_folder; /* staged */
    std::string handlers_folder;
    bool output_to_stderr = false; /* what it prints on standard output, too */
};

class RebuildChild
{
public:
    RebuildChild() = default;
    ~RebuildChild();
    RebuildChild(const RebuildChild &) = delete;
    RebuildChild &operator=(const RebuildChild &) = delete;

    /* Starts it, with our standard streams and environment.  Returns 0, or -1 after telling the trouble. */
    [[nodiscard]] int start(const RebuildCommand &command, const TroubleSink &trouble);

    /* Waits so many milliseconds for its end, negative for any time; whether it has ended. */
    [[nodiscard]] bool wait(int milliseconds);

    /*
     * How it ended: sets its wait status, as waitpid(2) gave it.
     * Returns 0, or -1 after telling the trouble: it could not be started, or its keeper was killed.
     */
    [[nodiscard]] int end(int *status, const TroubleSink &trouble);

private:
    pid_t keeper_ = 0;
    Fd socket_; /* to the keeper */
};

} // namespace kolmo
