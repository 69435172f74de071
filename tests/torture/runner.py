"""One worker: a private /var/lib/kolmo and /dev/log, and runs of the program in it, disturbed or not."""

import ctypes
import grp
import hashlib
import os
import re
import resource
import select
import shutil
import signal
import socket
import stat
import threading
import time
from dataclasses import dataclass, field

import world

# Seconds; a run takes some hundredths of one.  Whoever does not end by the first is tried again with the second:
# a hang repeats itself, a starved machine's delay does not.
DEADLINES = (20, 60)
PATIENCE = 600 # for the undisturbed runs, without which there is nothing to do
UTILITY = "/opt/qsx/admin/sbin/mail_responders_control"
ENVIRONMENT = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"}

MS_BIND, MS_REC, MS_PRIVATE, CLONE_NEWNS = 0x1000, 0x4000, 0x40000, 0x20000
PR_SET_CHILD_SUBREAPER, ADDR_NO_RANDOMIZE = 36, 0x0040000


def must(result, what):
    if result != 0:
        raise OSError(ctypes.get_errno(), f"{what}: {os.strerror(ctypes.get_errno())}")


@dataclass
class Outcome:
    """How a run ended, and what it said."""
    status: int | None = None  # the exit status, None after a signal
    signal: int = 0
    hang: bool = False
    leaked: bool = False       # a process was left that did not end
    stdout: str = ""
    stderr: str = ""
    syslog: list = field(default_factory=list)
    report: list = field(default_factory=list)  # the shim's lines
    injected: list = field(default_factory=list)  # strace's lines of the calls that it made fail
    killed_by_us: int = 0

    def silent(self):
        return self.status == 0 and not self.stderr and not self.stdout and not self.syslog


class Syslog:
    """Hears /dev/log from a thread of its own: a datagram socket that nobody reads blocks the sender."""

    def __init__(self, path):
        self.lines = []
        self.heard = threading.Event()
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(path)
        self.path = path
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self):
        while True:
            line = self.socket.recv(65536)
            if line == b"end":
                self.heard.set()
            else:
                self.lines.append(line.decode(errors="replace"))

    def take(self):
        """What came until now: datagrams keep their order."""
        self.heard.clear()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(b"end", self.path)
        self.heard.wait()
        lines, self.lines = self.lines, []
        return lines


class Worker:
    def __init__(self, number, program, shim):
        self.program, self.shim, self.deadline = program, shim, PATIENCE
        self.base = os.path.join(os.environ["KOLMO_SANDBOX_DIR"], f"torture{number}")
        self.stores = self.base + "/stores"
        os.makedirs(self.stores)
        self.private_world()
        self.syslog = Syslog(self.base + "/log")
        self.bind(self.base + "/log", "/dev/log")
        self.template = self.base + "/template"
        world.make_template(self.stores, self.make_responders)
        shutil.copytree(self.stores, self.template)
        self.reset()

    def private_world(self):
        libc = self.libc = ctypes.CDLL(None, use_errno=True)
        must(libc.unshare(CLONE_NEWNS), "unshare")
        must(libc.mount(b"none", b"/", None, MS_REC | MS_PRIVATE, None), "private mounts")
        must(libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0), "subreaper")
        # Where descriptors cannot be listed, the child closes all there can be, one by one.
        resource.setrlimit(resource.RLIMIT_NOFILE, (1024, 1024))
        libc.personality(ADDR_NO_RANDOMIZE)  # the same calls in each run
        os.makedirs(world.STORES, exist_ok=True)
        self.bind(self.stores, world.STORES)

    def bind(self, source, target):
        must(self.libc.mount(source.encode(), target.encode(), None, MS_BIND, None), "bind " + target)

    def make_responders(self):
        pid = os.posix_spawn(UTILITY, [UTILITY, "--init-db"], ENVIRONMENT)
        must(os.waitpid(pid, 0)[1], UTILITY)

    # --- the stores' files

    def reset(self, source=None):
        """The stores as the first run finds them, or as they stand below `source`."""
        for entry in os.scandir(self.stores):
            if entry.is_dir(follow_symlinks=False):
                shutil.rmtree(entry.path)
            else:
                os.unlink(entry.path)
        shutil.copytree(source or self.template, self.stores, dirs_exist_ok=True)
        self.own_handlers(self.stores)

    @staticmethod
    def own_handlers(stores):
        handlers = os.path.join(stores, os.path.relpath(world.HANDLERS, world.STORES))
        if os.path.exists(handlers):
            os.chown(handlers, 0, grp.getgrnam("popuser").gr_gid)
            os.chmod(handlers, 0o640)

    def files(self):
        """Every file's content, mode and owner, by path."""
        found = {}
        for folder, _, names in os.walk(self.stores):
            for name in names:
                path = os.path.join(folder, name)
                about = os.lstat(path)
                with open(path, "rb") as file:
                    found[os.path.relpath(path, self.stores)] = (
                        file.read(), stat.S_IMODE(about.st_mode), about.st_uid, about.st_gid)
        return found

    def save(self, name):
        folder = f"{self.base}/{name}"
        shutil.rmtree(folder, ignore_errors=True)
        return shutil.copytree(self.stores, folder)

    # --- runs

    def strace(self, *options):
        return ["strace", "-qq", "-y", "-s", "64", "-o", self.base + "/trace", *options,
                "-E", "LD_PRELOAD=" + self.shim]

    def start(self, prefix=(), settings=None, tag=""):
        """Starts the program, behind `prefix` or with the shim's `settings`, in a session of its own."""
        for name in ("report" + tag, "trace"):
            if os.path.exists(f"{self.base}/{name}"):
                os.unlink(f"{self.base}/{name}")
        environment = ENVIRONMENT | {"TORTURE_REPORT": f"{self.base}/report{tag}"} | (settings or {})
        if not prefix:
            environment["LD_PRELOAD"] = self.shim
        argv = [*prefix, self.program]
        return os.posix_spawnp(argv[0], argv, environment, setsid=True, file_actions=[
            (os.POSIX_SPAWN_OPEN, 0, "/dev/null", os.O_RDONLY, 0),
            (os.POSIX_SPAWN_OPEN, 1, f"{self.base}/stdout{tag}", os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600),
            (os.POSIX_SPAWN_OPEN, 2, f"{self.base}/stderr{tag}", os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)])

    def finish(self, pid, others=(), tag=""):
        """Waits for the run `pid` and for all that it started; `others` are the caller's to end."""
        outcome = Outcome()
        if not exits(pid, self.deadline):
            outcome.hang = True
            os.killpg(pid, signal.SIGKILL)
        status = os.waitpid(pid, 0)[1]
        if os.WIFSIGNALED(status):
            outcome.signal = os.WTERMSIG(status)
        else:
            outcome.status = os.WEXITSTATUS(status)
        outcome.leaked = not self.reap(others)
        outcome.stdout, outcome.stderr = self.text("stdout" + tag), self.text("stderr" + tag)
        outcome.syslog = self.syslog.take()
        outcome.report = self.text("report" + tag).splitlines()
        outcome.injected = [line for line in self.text("trace").splitlines() if "(INJECTED)" in line]
        return outcome

    def run(self, prefix=(), settings=None):
        return self.finish(self.start(prefix, settings))

    def text(self, name):
        try:
            with open(f"{self.base}/{name}", encoding="utf-8", errors="replace") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def reap(self, others):
        """Orphans of a run come to this process; the utility may go on for a moment when its caller is gone."""
        end = time.monotonic() + self.deadline
        while True:
            orphans = set(children()) - set(others)
            if not orphans:
                return True
            for pid in orphans:
                if time.monotonic() > end:
                    os.kill(pid, signal.SIGKILL)
                    os.waitpid(pid, 0)
                    return False
                if exits(pid, 0.05):
                    os.waitpid(pid, 0)


def exits(pid, seconds):
    """Whether the child ends in time."""
    fd = os.pidfd_open(pid)
    try:
        poll = select.poll()
        poll.register(fd, select.POLLIN)
        return bool(poll.poll(seconds * 1000))
    finally:
        os.close(fd)


def children(pid="self"):
    found = []
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/children", encoding="ascii") as file:
                found += map(int, file.read().split())
        except OSError:
            pass # a thread that has just ended
    return found


def digest(files):
    return hashlib.sha256(repr(sorted(files.items())).encode()).hexdigest()


LOG_LINE = re.compile(r"\S*mail_responders_rebuild\[\d+\]: (.*)", re.S)
SYSLOG_LINE = re.compile(r"<\d+>\S+ +\d+ [\d:]+ \S*mail_responders_rebuild\[\d+\]: (.*)", re.S)
