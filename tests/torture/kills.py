"""A run under ptrace(2), with all the processes that it starts, of which one is ended at the entry of a call.

strace does this for one process; which of several it is to be, and what becomes of the others, is told here.
"""

import collections
import ctypes
import os
import re
import signal
import struct
import threading

TRACEME, EVENT_MESSAGE, SYSCALL, SET_OPTIONS, SYSCALL_INFO = 0, 0x4201, 24, 0x4200, 0x420e
SYSGOOD, FORK, VFORK, CLONE, EXEC, EXIT, EXIT_KILL = 0x1, 0x2, 0x4, 0x8, 0x10, 0x40, 0x100000
AT_ENTRY, AT_END = 1, 2
NEW_PROCESS, EVENT_EXEC, EVENT_EXIT = (1, 2, 3), 4, 6
OPTIONS = SYSGOOD | FORK | VFORK | CLONE | EXEC | EXIT | EXIT_KILL
WALL = 0x40000000  # processes, however they were cloned

# Who a process is, by how many stand above it: between the refresh and the rebuild there is its keeper.
ROLES = ("refresh", "keeper", "rebuild", "utility")

libc = ctypes.CDLL(None, use_errno=True)
libc.ptrace.restype = ctypes.c_long
libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]


def call_names():
    """The kernel's names of its calls, by number."""
    for path in ("/usr/include/asm/unistd_64.h", f"/usr/include/{os.uname().machine}-linux-gnu/asm/unistd_64.h",
                 "/usr/include/asm-generic/unistd.h"):
        if os.path.exists(path):
            with open(path, encoding="ascii") as file:
                found = re.findall(r"^#define __NR(?:3264)?_(\w+)\s+(\d+)$", file.read(), re.M)
            return {int(number): name for name, number in found}
    raise RuntimeError("the names of the system calls are not installed (linux-libc-dev)")


CALLS = call_names()

Call = collections.namedtuple("Call", "role name position")  # the position among the role's calls of that name


class Kill:
    """Which process is ended, by which signal, at which call: one of its own, or `orphans`, one of a child's of the
    refresh, which is ended then.  INT goes to the whole group, as Ctrl-C does."""

    def __init__(self, call, signal_number, orphans=False):
        self.call, self.signal, self.orphans, self.done = call, signal_number, orphans, False

    def send(self, pid, first):
        self.done = True
        (os.killpg if self.signal == signal.SIGINT else os.kill)(first if self.orphans else pid, self.signal)


class TracedRun:
    """What was seen of a run: its first process, the calls in their order, how each process ended."""

    def __init__(self, start, deadline, kill=None):
        """start  runs the program in a new process; called in there, after the process can be traced"""
        self.kill, self.hang = kill, False
        self.calls, self.counts = [], collections.Counter()
        self.roles, self.statuses = {}, {}
        self.fresh = set()  # processes that have not yet begun: the kernel stops them first
        self.open = {}  # the descriptors of the rebuild at its beginning, and of the refresh at its end
        self.current = {}  # the call that each is in
        self.after_parent = []  # at which calls, and ends of calls, the keeper was met after the refresh's end
        self.pid = os.fork()
        if self.pid == 0:
            try:
                libc.ptrace(TRACEME, 0, None, None)
                os.kill(os.getpid(), signal.SIGSTOP)
                start()
            finally:
                os._exit(127)
        os.waitpid(self.pid, WALL)
        self.roles[self.pid] = 0
        libc.ptrace(SET_OPTIONS, self.pid, None, OPTIONS)
        libc.ptrace(SYSCALL, self.pid, None, None)
        timer = threading.Timer(deadline, self.end)
        timer.start()
        try:
            while self.step():
                pass
        finally:
            timer.cancel()

    def end(self):
        self.hang = True
        for pid in list(self.roles):
            if pid not in self.statuses:
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass

    def role(self, pid):
        return ROLES[min(self.roles[pid], len(ROLES) - 1)]

    def step(self):
        try:
            pid, status = os.waitpid(-1, WALL)
        except ChildProcessError:
            return False
        if not os.WIFSTOPPED(status):
            self.statuses[pid] = status
            return True
        delivered = self.stopped(pid, os.WSTOPSIG(status), status >> 16)
        libc.ptrace(SYSCALL, pid, None, delivered)  # fails for who was killed meanwhile
        return True

    def stopped(self, pid, number, event):
        """Returns the signal that the process goes on with."""
        if pid not in self.roles:  # a new process can be heard of before its parent's call is
            self.adopt(pid, parent(pid))
        if number == signal.SIGTRAP | 0x80:
            self.at_call(pid)
        elif event in NEW_PROCESS:
            child = ctypes.c_ulong()
            libc.ptrace(EVENT_MESSAGE, pid, None, ctypes.addressof(child))
            if child.value not in self.roles:
                self.adopt(child.value, pid)
        elif event == EVENT_EXEC and self.role(pid) == "rebuild":
            self.open["rebuild"] = descriptors(pid)
        elif event == EVENT_EXIT and pid == self.pid:
            self.open["refresh"] = descriptors(pid)
        elif event == 0 and not (number == signal.SIGSTOP and pid in self.fresh):
            return number
        self.fresh.discard(pid)
        return 0

    def adopt(self, pid, its_parent):
        self.roles[pid] = self.roles.get(its_parent, len(ROLES)) + 1
        self.fresh.add(pid)

    def at_call(self, pid):
        info = ctypes.create_string_buffer(88)
        libc.ptrace(SYSCALL_INFO, pid, len(info), ctypes.addressof(info))
        stop = info.raw[0]
        if stop == AT_ENTRY:
            self.enters(pid, CALLS.get(struct.unpack_from("Q", info.raw, 24)[0], "unknown"))
        if stop in (AT_ENTRY, AT_END) and self.role(pid) == "keeper" and self.pid in self.statuses:
            self.after_parent.append(self.current.get(pid, "clone3"))

    def enters(self, pid, name):
        role = self.role(pid)
        self.counts[role, name] += 1
        self.current[pid] = name
        self.calls.append(Call(role, name, self.counts[role, name]))
        if self.kill and self.calls[-1] == self.kill.call:
            self.kill.send(pid, self.pid)


def parent(pid):
    with open(f"/proc/{pid}/status", encoding="ascii", errors="replace") as file:
        return int(re.search(r"^PPid:\s*(\d+)$", file.read(), re.M)[1])


def descriptors(pid):
    """What a process has open besides its standard streams."""
    folder = f"/proc/{pid}/fd"
    return sorted(os.readlink(f"{folder}/{number}") for number in os.listdir(folder) if int(number) > 2)
