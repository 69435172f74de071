"""Runs in which system calls fail, stop half-way or end the program, and runs in which memory is short.

A run's name says all: `call:once:pwrite64:17:ENOSPC` lets the 17th pwrite64 after main began fail once.
strace counts each call's name by itself, so a position stays the same when the server answers sooner or
later and poll is called more or less often.
"""

import collections
import os
import re
import signal
import time
import zlib

from runner import PATIENCE, Outcome, children

# Calls that do not fail, or whose failure nobody could notice.
NEVER_FAIL = {"getpid", "getppid", "gettid", "geteuid", "getuid", "futex", "exit_group", "rt_sigaction",
              "rt_sigprocmask", "rt_sigreturn", "sigaltstack", "set_robust_list", "tgkill", "munmap", "brk"}
# brk stays out: when it fails, the C library's allocator turns to mmap.

# The error numbers that each call can meet.
ERRORS = {
    "clone": "EAGAIN ENOMEM",
    "close": "EIO EINTR",
    "connect": "ECONNREFUSED ENOENT EACCES EINTR EAGAIN",
    "dup2": "EMFILE EINTR",
    "execve": "ENOENT EACCES ENOMEM EIO",
    "fchown": "EPERM EIO EROFS",
    "fcntl": "EIO EINTR ENOLCK EAGAIN EACCES",
    "fdatasync": "EIO ENOSPC EINTR",
    "ftruncate": "EIO ENOSPC EINTR",
    "getdents64": "EIO ENOMEM",
    "lseek": "EIO",
    "mmap": "ENOMEM",
    "newfstatat": "EIO EACCES ENOENT ENOMEM",
    "openat": "EACCES EMFILE ENFILE ENOENT ENOSPC EROFS EINTR EIO ENOMEM",
    "pipe2": "EMFILE ENFILE ENOMEM",
    "poll": "ENOMEM EINTR",
    "pread64": "EIO EINTR ENOMEM",
    "prlimit64": "EPERM",
    "pselect6": "ENOMEM EINTR EBADF",
    "pwrite64": "ENOSPC EIO EINTR EDQUOT",
    "read": "EIO EINTR EAGAIN",
    "recvfrom": "ECONNRESET ETIMEDOUT EINTR EAGAIN ENOMEM",
    "sendto": "ECONNRESET EPIPE EINTR EAGAIN ENOBUFS",
    "setsockopt": "ENOMEM",
    "shutdown": "ENOTCONN",
    "socket": "EMFILE ENFILE ENOBUFS EACCES",
    "unlink": "EACCES EIO ENOENT EROFS EBUSY",
    "wait4": "EINTR ECHILD",
    "write": "EIO ENOSPC EINTR EPIPE",
}
# Calls on files and on the server's socket: they also fail from a position on, but with what can last.
PERSISTENT = {"close", "connect", "fchown", "fcntl", "fdatasync", "ftruncate", "lseek", "newfstatat", "openat",
              "poll", "pread64", "pwrite64", "read", "recvfrom", "sendto", "setsockopt", "socket", "unlink", "write"}
PASSING = {"EINTR", "EAGAIN", "EBUSY"}
LOCK_IS_BUSY = {"ENOLCK", "EACCES"} # so SQLite takes these two of fcntl
HALVED = ("read", "write", "pread64", "pwrite64", "recv", "send")
SIGNALS = ("TERM", "INT", "HUP", "PIPE")
SIGNAL_STEP = 12 # one call in so many meets one of these

Trace = collections.namedtuple("Trace", "calls before child counts places")


def observe(worker):
    """The calls of an undisturbed run after main began, in order, as (name, position), those before by name, the
    calls of the child until it is the utility, what the shim counts, and the place of each allocation."""
    worker.reset()
    undisturbed(worker.run(worker.strace()))
    before, after = collections.Counter(), collections.Counter()
    calls, in_main = [], False
    for name in re.findall(r"^(\w+)\(", worker.text("trace"), re.M):
        if name == "getppid":
            in_main = True
        if not in_main:
            before[name] += 1
            continue
        after[name] += 1
        calls.append((name, after[name]))
    worker.reset()
    outcome = undisturbed(worker.run(settings={"TORTURE_PLACES": "1"}))
    places = [line for line in outcome.report if line.startswith("place ")]
    counts = {name: int(number) for _, name, number in
              (line.split() for line in outcome.report if line.startswith("count "))}
    return Trace(calls, before, child_calls(worker), counts, places)


def undisturbed(outcome):
    if not outcome.silent():
        raise RuntimeError(f"an undisturbed run is not one: {outcome}")
    return outcome


def child_calls(worker):
    worker.reset()
    undisturbed(run_child(worker, []))
    seen, calls = collections.Counter(), []
    for name in re.findall(r"^(\w+)\(", worker.text("trace"), re.M):
        seen[name] += 1
        calls.append((name, seen[name]))
        if name == "execve":
            break
    return calls


def errors(name):
    return ERRORS.get(name, "EIO ENOMEM EINTR").split()


def names(trace):
    """Every run of this kind, by name."""
    for name, k in trace.calls:
        if name not in NEVER_FAIL:
            for error in errors(name):
                yield f"call:once:{name}:{k}:{error}"
        if name in PERSISTENT:
            for error in errors(name):
                if error not in PASSING and not (name == "fcntl" and error in LOCK_IS_BUSY):
                    yield f"call:on:{name}:{k}:{error}"
        yield f"kill:KILL:{name}:{k}"
    # A lock that is refused for ever is waited for for ever: two runs of it are enough to see that.
    locks = [k for name, k in trace.calls if name == "fcntl"]
    for k in (locks[len(locks) // 3], locks[-10]):
        yield f"call:on:fcntl:{k}:EAGAIN"
    for name, k in trace.calls:
        step, rest = divmod(zlib.crc32(f"{name}:{k}".encode()), SIGNAL_STEP)
        if rest == 0:
            yield f"kill:{SIGNALS[step % len(SIGNALS)]}:{name}:{k}"
    for name in HALVED:
        for k in range(1, trace.counts[name] + 1):
            yield f"call:half:{name}:{k}"
    for name, k in trace.child:
        if name not in NEVER_FAIL:
            for error in errors(name):
                yield f"child:once:{name}:{k}:{error}"
        yield f"child:KILL:{name}:{k}"
    for k in range(1, trace.counts["memory"] + 1):
        yield f"memory:once:{k}"
        yield f"memory:on:{k}"


def sort(trace, name):
    """What the sample is to have one of at least: a kind of run, with the call or the place that it disturbs."""
    if name.startswith("memory:"):
        _, how, k = name.split(":")
        return how + trace.places[int(k) - 1]
    return re.sub(r":\d.*", "", name)


def is_steady(name):
    """Whether each run comes to that call: how often there is something to wait for is up to the server."""
    return re.search(r":(poll|recvfrom|recv|pselect6):(?!1\b)", name) is None


def run(worker, trace, name):
    """Makes the run of that name; returns its outcome, and whether what was to happen did happen."""
    kind, how, *rest = name.split(":")
    if kind == "memory":
        outcome = worker.run(settings={"TORTURE_MEMORY": rest[0] + ("+" if how == "on" else "")})
        return outcome, any(line.startswith("failed ") for line in outcome.report)
    if how == "half":
        outcome = worker.run(settings={"TORTURE_HALF": ":".join(rest)})
        return outcome, "half" in outcome.report
    call, k, *error = rest
    count = int(k) + (0 if kind == "child" else trace.before[call])
    what = f"error={error[0]}" if error else f"signal={how}"
    options = ["-e", f"trace={call}", "-e", f"inject={call}:{what}:when={count}{'+' if how == 'on' else ''}"]
    if kind == "child":
        outcome = run_child(worker, options)
        return outcome, bool(outcome.injected) or how == "KILL"
    outcome = worker.run(worker.strace(*options))
    if error:
        return outcome, bool(outcome.injected)
    outcome.killed_by_us = signal.Signals["SIG" + how]
    # The database's client ignores SIGPIPE from its first use on.
    return outcome, outcome.signal == outcome.killed_by_us or how == "PIPE"


def run_child(worker, options) -> Outcome:
    """A run whose child is traced from the return of fork on: it stops itself there and waits for strace."""
    pid = worker.start(settings={"TORTURE_STOP_CHILD": "1"})
    child = wait_for(lambda: next((child for child in children(pid) if status(child, "State")[0] == "T"), None))
    tracer = os.posix_spawnp("strace", ["strace", "-qq", "-y", "-s", "64", "-o", worker.base + "/trace", *options,
                                        "-p", str(child)], os.environ)
    wait_for(lambda: status(child, "TracerPid") == str(tracer))
    os.kill(child, signal.SIGCONT)
    return worker.finish(pid)


def status(pid, key):
    with open(f"/proc/{pid}/status", encoding="ascii", errors="replace") as file:
        return re.search(rf"^{key}:\s*(.*)$", file.read(), re.M)[1]


def wait_for(condition):
    end = time.monotonic() + PATIENCE
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(0.001)
    raise RuntimeError("the run has no child, or strace does not get hold of it")
