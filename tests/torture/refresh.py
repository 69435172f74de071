"""Disturbed refreshes, and what they leave: see tools/torture and docs/testing.md.

A run's name says all: `rows:kill:KILL:keeper:mount:2` kills the keeper at its second call of mount, while rows of
both stores differ; `whole:fail:rename:1:EIO` fails the refresh's first rename, while the responder store is missing.
"""

import collections
import multiprocessing
import os
import random
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
import time
import zlib

import calls
import refresh_laws as laws
import torture
import world
from kills import Call, Kill, TracedRun
from runner import DEADLINES, ENVIRONMENT, MS_BIND, MS_REC, Outcome, Worker, must

SAMPLE = 1000 # one run in so many, and one of each sort
MS_SHARED, MNT_DETACH = 0x100000, 2
WAIT = "5" # seconds that it waits for a lock: nobody else holds one
SIGNALS = ("TERM", "INT", "HUP")
SIGNAL_STEP = 12 # every so many calls, one of these
ROUNDS = 200

ERRORS = calls.ERRORS | {
    "access": "EACCES EIO",
    "chmod": "EPERM EIO",
    "chown": "EPERM EIO",
    "clock_nanosleep": "EINTR",
    "clone3": "EAGAIN ENOMEM EPERM",
    "fchmod": "EPERM EIO",
    "fcntl": "EIO EAGAIN ENOLCK",
    "flock": "EINTR ENOLCK EAGAIN",
    "fstatfs": "EIO",
    "fsync": "EIO ENOSPC",
    "getrandom": "EINTR",
    "kill": "EPERM",
    "mkdir": "EACCES ENOSPC EEXIST",
    "mount": "EPERM ENOMEM EBUSY",
    "newfstatat": "EIO EACCES",
    "openat": "EACCES EMFILE EIO",
    "readlink": "EACCES EIO",
    "rename": "EIO ENOSPC EACCES",
    "rmdir": "EBUSY EACCES",
    "socketpair": "EMFILE ENOMEM",
    "statfs": "EIO EACCES",
    "umount2": "EBUSY EPERM",
    "unlinkat": "EACCES EIO EBUSY",
    "unshare": "EPERM ENOMEM ENOSPC",
}
# Calls that do not fail, or whose failure nobody could notice.
NEVER_FAIL = calls.NEVER_FAIL | {"prctl", "sysinfo"}

Scenario = collections.namedtuple("Scenario", "name is_whole rows arguments")
Trace = collections.namedtuple("Trace", "kills fails")


def older_responders():
    """The responder store as it stands before a refresh that has rows to add, to change and to remove."""
    rows = sorted(laws.FINAL[world.RESPONDERS])
    changed = [(*row[:-1], "other") if row[0] == "extra_headers" else
               (*row[:4], "An older subject", *row[5:]) if row[1].startswith("info@") and row[0] == "autoresponder"
               else row for row in rows]
    return world.STALE_STATE | frozenset(
        row for row in changed if not row[1].startswith("jane@") and row[2] != "map.png")


OLD_HANDLERS = world.HANDLER_STATES[0]
SCENARIOS = [
    Scenario("rows", False, {world.RESPONDERS: older_responders(), world.HANDLERS: OLD_HANDLERS}, []),
    Scenario("whole", True, {world.RESPONDERS: None, world.HANDLERS: OLD_HANDLERS}, ["--stage", "/run/stage"]),
]


class RefreshWorker(Worker):
    """A worker with a /run and a panel database of its own, too."""

    def __init__(self, number, program):
        self.database = f"qsx{number}"
        self.scenario = None
        super().__init__(number, program, shim="")
        with open(world.ROOT + "/demo/panel-schema.sql", encoding="utf-8") as file:
            self.sql(f"CREATE DATABASE {self.database} CHARACTER SET utf8mb4; USE {self.database};" + file.read() +
                     ";".join(world.panel_sql()))
        # As on a host: what is mounted by a refresh that does not keep it to itself is seen here.
        must(self.libc.mount(b"none", b"/run", None, MS_REC | MS_SHARED, None), "shared mounts")
        self.mounts_before = self.mounts()
        self.after = self.files() # what a store's owner and mode are to be
        self.templates = {scenario.name: self.make_scenario(scenario) for scenario in SCENARIOS}

    def private_world(self):
        super().private_world()
        run, sandbox = self.base + "/run", os.environ["KOLMO_SANDBOX_DIR"]
        for path in ("/run/mysqld", sandbox):
            os.makedirs(self.base + path)
            self.bind(path, self.base + path)
        must(self.libc.mount(run.encode(), b"/run", None, MS_BIND | MS_REC, None), "bind /run")
        os.mkdir("/run/stage")
        os.mkdir(self.base + "/tmp")
        with open(self.base + "/dsn.ini", "w", encoding="ascii") as file:
            file.write(f"[kolmo]\nusername = admin\ndbname = {self.database}\n")
        self.bind(self.base + "/dsn.ini", "/etc/qsx/private/dsn.ini")

    def sql(self, statements):
        subprocess.run(["mariadb", "--no-defaults", "--socket=" + os.environ["KOLMO_SANDBOX_SOCKET"], "--user=admin",
                        "--default-character-set=utf8mb4"], input=statements.encode(), check=True,
                       env=os.environ | {"MYSQL_PWD": os.environ["KOLMO_SANDBOX_PASSWORD"]})

    def make_scenario(self, scenario):
        self.reset(self.template)
        if scenario.rows[world.RESPONDERS] is None:
            os.unlink(world.RESPONDERS)
        else:
            db = sqlite3.connect(world.RESPONDERS, isolation_level=None)
            db.execute("DELETE FROM attachments")
            for row in sorted(scenario.rows[world.RESPONDERS]):
                db.execute(f"INSERT INTO {row[0]} VALUES ({', '.join('?' * (len(row) - 1))})", row[1:])
            db.close()
        return self.save("template-" + scenario.name)

    def begin(self, scenario):
        """The stores of a scenario, and nothing of an earlier run."""
        self.scenario = scenario
        for mount in set(self.mounts().splitlines()) - set(self.mounts_before.splitlines()):
            self.libc.umount2(mount.split()[4].encode(), MNT_DETACH)
        for path in self.around():
            (os.unlink if os.path.isfile(path) else shutil.rmtree)(path)
        self.reset(self.templates[scenario.name])
        self.before = self.files()

    def around(self):
        """What a refresh could leave beside the stores."""
        return sorted(os.path.join(folder, name) for folder in ("/run", "/run/stage", self.base + "/tmp")
                      for name in os.listdir(folder) if name not in ("stage", "mysqld", "kolmo-sandbox"))

    def mounts(self):
        with open("/proc/self/mountinfo", encoding="utf-8") as file:
            return file.read()

    # --- runs

    def strace(self, *options):
        return ["strace", "-qq", "-y", "-s", "64", "-o", self.base + "/trace", *options]

    def command(self):
        return [self.program, "--wait", WAIT, *self.scenario.arguments]

    def environment(self):
        return ENVIRONMENT | {"TMPDIR": self.base + "/tmp"}

    def start(self, prefix=(), settings=None, tag=""):
        if os.path.exists(self.base + "/trace"):
            os.unlink(self.base + "/trace")
        argv = [*prefix, *self.command()]
        return os.posix_spawnp(argv[0], argv, self.environment(), setsid=True, file_actions=[
            (os.POSIX_SPAWN_OPEN, number, path, os.O_RDWR | os.O_CREAT | os.O_TRUNC, 0o600)
            for number, path in enumerate(self.streams())])

    def streams(self):
        return "/dev/null", self.base + "/stdout", self.base + "/stderr"

    def become(self):
        """In a new process."""
        os.setsid()
        for number, path in enumerate(self.streams()):
            os.dup2(os.open(path, os.O_RDWR | os.O_CREAT | os.O_TRUNC, 0o600), number)
        os.execve(self.program, self.command(), self.environment())

    def trace(self, kill=None):
        """A run with all its processes under ptrace: the outcome, and what was seen."""
        seen = TracedRun(self.become, self.deadline, kill)
        status = seen.statuses[seen.pid]
        outcome = Outcome(hang=seen.hang, stdout=self.text("stdout"), stderr=self.text("stderr"),
                          syslog=self.syslog.take())
        if os.WIFSIGNALED(status):
            outcome.signal = os.WTERMSIG(status)
        else:
            outcome.status = os.WEXITSTATUS(status)
        return outcome, seen


# --- the runs and their names

def observe(worker, scenario):
    """The calls of an undisturbed refresh: of all its processes, and its own after main began."""
    worker.begin(scenario)
    outcome, seen = worker.trace()
    must_be_undisturbed(outcome, [("L6", f"the {who} is given or leaves open {files}")
                                  for who, files in seen.open.items() if files])
    worker.begin(scenario)
    outcome = worker.run(worker.strace())
    own_calls = re.findall(r"^(\w+)\((.*)", worker.text("trace"), re.M)
    must_be_undisturbed(outcome, laws.after_run(worker, outcome))
    counts, fails, in_main = collections.Counter(), [], False
    for name, arguments in own_calls:
        counts[name] += 1
        in_main = in_main or '"/dev/null", O_RDWR' in arguments # its first call
        if in_main:
            fails.append((name, counts[name]))
    return Trace([call for call in seen.calls if call.role != "utility"], fails)


def must_be_undisturbed(outcome, found=()):
    found = list(found)
    if outcome.status != 0 or found:
        raise RuntimeError(f"an undisturbed run ends with {outcome.status}: {outcome.stderr}{found}")


def names(traces):
    """Every run, by name."""
    for scenario, trace in traces.items():
        steps = collections.Counter()
        for role, name, k in trace.kills:
            yield f"{scenario}:kill:KILL:{role}:{name}:{k}"
            steps[role] += 1
            if role == "refresh" and steps[role] % SIGNAL_STEP == 0:
                yield f"{scenario}:kill:{SIGNALS[steps[role] // SIGNAL_STEP % 3]}:{role}:{name}:{k}"
            if role == "keeper" or (role == "rebuild" and steps[role] % SIGNAL_STEP == 0):
                yield f"{scenario}:orphan:{role}:{name}:{k}"
        for name, k in trace.fails:
            if name not in NEVER_FAIL:
                for error in ERRORS.get(name, "EIO ENOMEM EINTR").split():
                    yield f"{scenario}:fail:{name}:{k}:{error}"
    for number in range(ROUNDS):
        yield f"rows:writers:{number}"


def make_run(name):
    """(name, whether it was disturbed, [(law, what was seen)], what it said)"""
    worker = become_worker()
    scenario, kind, *rest = name.split(":")
    for worker.deadline in DEADLINES:
        worker.begin(next(one for one in SCENARIOS if one.name == scenario))
        outcome, disturbed, more = KINDS[kind](worker, *rest)
        found = more if kind == "writers" else [*more, *laws.after_run(worker, outcome)]
        if disturbed and not any(what.endswith(("it hangs", "a process stays behind")) for _, what in found):
            break
    return name, disturbed, found, str(outcome)


def killed(worker, name, role, call, position):
    return killed_at(worker, Kill(Call(role, call, int(position)), signal.Signals["SIG" + name]), role == "refresh")


def orphaned(worker, role, call, position):
    return killed_at(worker, Kill(Call(role, call, int(position)), signal.SIGKILL, orphans=True), True)


def killed_at(worker, kill, is_refresh):
    outcome, seen = worker.trace(kill)
    outcome.killed_by_us = kill.signal if is_refresh else 0
    return outcome, kill.done, list(laws.children_ended(seen))


def failed(worker, call, position, error):
    outcome = worker.run(worker.strace("-e", f"trace={call}", "-e", f"inject={call}:error={error}:when={position}"))
    return outcome, bool(outcome.injected), []


# --- writers

def new_rows(number):
    """What the panel writes to the stores, in this order, when a mailbox begins to answer."""
    mn, address = f"new{number}@bücher.example", f"new{number}@xn--bcher-kva.example"
    return [("autoresponder", mn, "", "no", f"Subject {number}", "", "", "text/plain", "UTF-8", "Text\n", 10, 100,
             mn),
            ("handlers", 2, 1, 1, 90, "autoresponder", address, world.HOOKS + "autoresponder", "responder", 0),
            foreign_handler(address)]


def foreign_handler(address):
    return ("handlers", 1, 2, 1, 30, "spam-filter", address, world.HOOKS + "spam-filter", "strict", 0)


def put(store, row):
    db = sqlite3.connect(store, isolation_level=None, timeout=60)
    db.execute("BEGIN IMMEDIATE")
    if row[0] == "handlers":
        db.execute("DELETE FROM handlers WHERE queue = ? AND type = ? AND name = ? AND address = ?",
                   (row[1], row[2], row[5], row[6]))
    db.execute(f"INSERT OR REPLACE INTO {row[0]} VALUES ({', '.join('?' * (len(row) - 1))})", row[1:])
    db.execute("COMMIT")
    db.close()


def add_reply(worker, number):
    """As the panel does it: first its database, then the stores; returns the rows."""
    worker.sql(f"USE {worker.database}; BEGIN; INSERT INTO mail VALUES ({900 + number}, 1, 'new{number}', 'true'); "
               f"INSERT INTO mail_resp (id, mn_id, resp_name, subject, text) VALUES ({900 + number}, {900 + number}, "
               f"'default', 'Subject {number}', 'Text\\n'); COMMIT")
    rows = new_rows(number)
    for row in rows:
        put(world.HANDLERS if row[0] == "handlers" else world.RESPONDERS, row)
    return rows


def writers(worker, number):
    """Beside a refresh another program adds handlers, and the panel adds replies."""
    rng = random.Random(number)
    added = set()
    pid = worker.start()
    for number in range(2):
        time.sleep(rng.uniform(0, state["seconds"] / 2))
        handler = foreign_handler(f"other{number}@xn--bcher-kva.example")
        put(world.HANDLERS, handler)
        added.add(handler)
        added.update(add_reply(worker, number))
    outcome = worker.finish(pid)
    found = [*laws.ended_well(worker, outcome, worker.files(), worker.around()),
             *laws.nothing_lost(worker, outcome, added)]
    again = worker.run()
    found += [("L5", f"the next refresh: {what}") for _, what in laws.nothing_lost(worker, again, added)]
    if again.hang:
        found.append(("L5", "the next refresh: it hangs"))
    elif again.status != 0:
        found.append(("L5", f"the next refresh ends with {again.status}: {again.stderr}"))
    worker.sql(f"USE {worker.database}; DELETE FROM mail WHERE id >= 900; DELETE FROM mail_resp WHERE id >= 900")
    return outcome, True, found


KINDS = {"kill": killed, "orphan": orphaned, "fail": failed, "writers": writers}


# --- in a worker process

state = {}


def remember(program, _):
    state["program"] = program


def become_worker():
    """Once, and in a task: what fails here is to reach the main process."""
    if "traces" in state:
        return state["worker"]
    worker = state["worker"] = RefreshWorker(multiprocessing.current_process()._identity[0], state["program"])
    state["traces"] = {scenario.name: observe(worker, scenario) for scenario in SCENARIOS}
    worker.begin(SCENARIOS[0])
    begin = time.monotonic()
    must_be_undisturbed(worker.run())
    state["seconds"] = time.monotonic() - begin
    return worker


def plan(_):
    become_worker()
    return [(name, sort(name)) for name in names(state["traces"])]


# --- in the main process

def sample(runs):
    """The same ones every time, by a hash of the name, and the last of each sort: there is most to lose."""
    last = {}
    for name, its_sort in runs:
        if its_sort not in last or last[its_sort].startswith(name.split(":")[0]):
            last[its_sort] = name
    return {*last.values(), *(name for name, _ in runs if zlib.crc32(name.encode()) % SAMPLE == 0)}


def sort(name):
    """By the call; those of a commit one by one, those of the rebuild are tortured without a refresh."""
    kind, *rest = name.split(":")[1:]
    of = {"kill": 2 if "rebuild" in rest else 4 if rest[2:3] in COMMIT else 3, "orphan": 1, "fail": 1, "writers": 0}
    return kind, *rest[:of[kind]]


COMMIT = (["fdatasync"], ["unlink"])


def row(name):
    return ":".join(name.split(":")[:2])


if __name__ == "__main__":
    sys.exit(torture.main(torture.Torture("tools/torture --refresh", str, remember, plan, make_run, sample, row,
                                          "refresh:")))
