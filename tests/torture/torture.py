"""Disturbed runs of the whole program, and what they leave: see tools/torture and docs/testing.md."""

import argparse
import collections
import fnmatch
import functools
import multiprocessing
import os
import re
import shutil
import subprocess
import sys
import time
import zlib

import calls
import company
import laws
import power
import world
from runner import DEADLINES, UTILITY, Worker

MOST_HANGS = 5
SAMPLE = 60 # one run in so many, and one of each sort

# --- in a worker process

state = {}


def remember(program, shim):
    state.update(program=program, shim=shim)


def become_worker():
    """Once, and in a task: what fails here is to reach the main process."""
    if "recording" in state:
        return state["worker"]
    worker = state["worker"] = Worker(multiprocessing.current_process()._identity[0], state["program"], state["shim"])
    state["files"] = worker.files()
    outcome = worker.run()
    found = list(laws.after_run(worker, outcome, state["files"]))
    if not outcome.silent() or found:
        raise RuntimeError(f"an undisturbed run ends with {outcome.status}: {outcome.stderr}{found}")
    state.update(trace=calls.observe(worker), recording=power.record(worker))
    return worker


def plan(_):
    """Every run's name and sort, in the order of the kinds."""
    become_worker()
    names = [*calls.names(state["trace"]), *power.names(state["recording"]), *company.names(), "memcheck:run"]
    return [(name, calls.sort(state["trace"], name)) for name in names]


def named(make_run, name):
    try:
        return make_run(name)
    except Exception as error: # the driver's own, which is to be found by the run
        raise RuntimeError(f"{name}: {error!r}") from error


def make_run(name):
    """(name, whether it was disturbed, [(law, what was seen)], what it said)"""
    worker = become_worker()
    kind = name.split(":")[0]
    for worker.deadline in (*DEADLINES, DEADLINES[-1]):
        worker.reset()
        disturbed, said = True, ""
        if kind == "power":
            found = after_power_cut(worker, name)
        elif kind == "company":
            found = list(company.run(worker, name, state["files"]))
        elif kind == "memcheck":
            found = list(memcheck(worker))
        else:
            outcome, disturbed = calls.run(worker, state["trace"], name)
            found = [(law, seen + failing(outcome)) for law, seen in laws.after_run(worker, outcome, state["files"])]
            said = f"{outcome}"
        found = [tuple(entry) for entry in found]
        late = any(seen.startswith(laws.LATE) for _, seen in found)
        if disturbed and (not late or worker.deadline == DEADLINES[-1]):
            break
    worker.deadline = DEADLINES[-1]
    return name, disturbed, found, said


def failing(outcome):
    """Which allocation failed, innermost frame of the program and of each library first."""
    for line in outcome.report:
        if line.startswith("failed "):
            return " | " + line
    return ""


def after_power_cut(worker, name):
    files, commits = power.image(state["recording"], name)
    for path in world.TABLES:
        os.unlink(path)
    for path, content in files.items():
        with open(path, "wb") as file:
            file.write(content)
    worker.own_handlers(worker.stores)
    return list(laws.after_power_cut(worker, commits, state["files"]))


def memcheck(worker):
    outcome = worker.run(["valgrind", "--quiet", "--error-exitcode=99", "--leak-check=full",
                          "--errors-for-leak-kinds=definite", "--child-silent-after-fork=yes"])
    if not outcome.silent():
        yield "L6", f"valgrind: status {outcome.status}: {outcome.stderr}"
    yield from laws.after_run(worker, outcome, state["files"])


# --- in the main process

def exceptions():
    """The rows of docs/testing.md's table: (pattern of the run, law, pattern of what was seen, its text)."""
    with open(world.ROOT + "/docs/testing.md", encoding="utf-8") as file:
        for run, law, seen in re.findall(r"^\| `([^`]+)` \| (L\d) \| `([^`]+)` \|", file.read(), re.M):
            run, seen = (pattern.replace("\\|", "|") for pattern in (run, seen))
            yield re.compile(run), law, re.compile(seen, re.S), f"{run}  {law}  {seen}"


def is_known(known, used, name, law, seen):
    for run, its_law, its_seen, text in known:
        if law == its_law and run.fullmatch(name) and its_seen.search(seen):
            used[text] += 1
            return True
    return False


def choose(runs, arguments, sample):
    names = [name for name, _ in runs]
    if arguments.only:
        return [name for name in names if any(fnmatch.fnmatchcase(name, pattern) for pattern in arguments.only)]
    if arguments.all:
        return names
    chosen = sample(runs)
    return [name for name in names if name in chosen]


def sample(runs):
    """The same ones every time: one of each sort, and some by a hash of the name; no lock that is waited for for
    ever.  Of the allocations in one place the last: there is the most to lose."""
    steady = [(name, sort) for name, sort in runs if calls.is_steady(name)]
    first, last = dict((sort, name) for name, sort in reversed(steady)), dict((sort, name) for name, sort in steady)
    chosen = {(last if name.startswith("memory:") else first)[sort] for name, sort in steady}
    chosen |= {name for name, _ in steady if zlib.crc32(name.encode()) % SAMPLE == 0}
    return {name for name in chosen if not re.match(r"call:on:fcntl:\d+:EAGAIN", name)}


class Progress:
    def __init__(self, total):
        self.total, self.done, self.begin, self.shown = total, 0, time.monotonic(), 0.0

    def step(self, violations):
        self.done += 1
        now = time.monotonic()
        if now - self.shown < (1 if sys.stderr.isatty() else 30) and self.done < self.total:
            return
        self.shown = now
        left = (now - self.begin) / self.done * (self.total - self.done)
        print(f"torture: {self.done} of {self.total}, {violations} violations, some {left:.0f} s left",
              end="\r" if sys.stderr.isatty() else "\n", file=sys.stderr, flush=True)


# What is tortured: its command, how its program gets where it is run, what the workers do, the names of a sample's
# runs, the row of the table that a run counts for, and what the exceptions put before its name.
Torture = collections.namedtuple("Torture", "command install remember plan make_run sample row prefix")


def torture(kind, arguments):
    known = [row for row in exceptions() if row[3].startswith("refresh:") == (kind.prefix != "")]
    used, tally = collections.Counter(), collections.defaultdict(collections.Counter)
    violations = hangs = 0
    begin = time.monotonic()
    with open(arguments.log, "w", encoding="utf-8") as log, multiprocessing.Pool(
            arguments.workers, kind.remember, (arguments.program, arguments.shim)) as pool:
        runs = pool.apply(kind.plan, (None,))
        names = choose(runs, arguments, kind.sample)
        print(f"{len(names)} of {len(runs)} runs", flush=True)
        progress = Progress(len(names))
        for name, disturbed, found, said in pool.imap_unordered(
                functools.partial(named, kind.make_run), names, 2):
            row = tally[kind.row(name)]
            row["runs"] += 1
            row["missed"] += not disturbed
            for law, seen in found:
                excepted = is_known(known, used, kind.prefix + name, law, seen)
                row["known" if excepted else law] += 1
                print(f"{name}\t{law}\t{'known' if excepted else 'new'}\t{seen!r}", file=log, flush=True)
                if not excepted:
                    violations += 1
                    hangs += seen == laws.HANG
                    if arguments.verbose or violations <= 50:
                        print(f"{law} {seen[:1500]}\n    {kind.command} --only '{name}'", flush=True)
            if arguments.verbose:
                print(f"{name}: {said}", flush=True)
            progress.step(violations)
            if hangs == MOST_HANGS: # each takes minutes
                print(f"torture: {hangs} runs hang, that is enough", flush=True)
                break
    show(tally, violations, time.monotonic() - begin)
    for _, _, _, text in known:
        if arguments.verbose or (arguments.all and not used[text]):
            print(f"exception used {used[text]} times: {text}")
    return 1 if violations or not names else 0


def show(tally, violations, seconds):
    columns = ["runs", "missed", "known", "L1", "L2", "L3", "L4", "L5", "L6"]
    print("\n" + " " * 16 + "".join(f"{column:>8}" for column in columns))
    total = collections.Counter()
    for kind, row in tally.items():
        total.update(row)
        print(f"{kind:16}" + "".join(f"{row[column] or '.':>8}" for column in columns))
    print(f"{'all':16}" + "".join(f"{total[column] or '.':>8}" for column in columns))
    print(f"\n{violations} violations in {total['runs']} runs, {seconds:.0f} s")


def install(program):
    """Where the panel's programs are: a longer path would be cut in the messages."""
    return shutil.copy(program, os.path.join(os.path.dirname(UTILITY), "mail_responders_rebuild"))


def fill_panel():
    """The panel's database, once for all runs."""
    with open(world.ROOT + "/demo/panel-schema.sql", encoding="utf-8") as file:
        sql = file.read() + "".join(statement + ";\n" for statement in world.panel_sql())
    subprocess.run(["mariadb", "--no-defaults", "--socket=" + os.environ["KOLMO_SANDBOX_SOCKET"], "--user=admin",
                    "--default-character-set=utf8mb4", "qsx"], input=sql.encode(), check=True,
                   env=os.environ | {"MYSQL_PWD": os.environ["KOLMO_SANDBOX_PASSWORD"]})
    with open("/etc/qsx/private/dsn.ini", "w", encoding="ascii") as file:
        file.write("[kolmo]\nusername = admin ; the password is in a file of its own\ndbname = qsx\n")
    with open("/etc/qsx/qsx.conf", "w", encoding="ascii") as file:
        file.write(f"# the panel's\nMYSQL_SOCKET {os.environ['KOLMO_SANDBOX_SOCKET']}\n")
    with open("/dev/log", "w", encoding="ascii"):
        pass # each worker mounts its own over it


def main(kind):
    """The command line of a torture, the panel of all its runs, and the runs."""
    parser = argparse.ArgumentParser(prog=kind.command)
    parser.add_argument("--all", action="store_true")
    parser.add_argument("--sample", action="store_true")
    parser.add_argument("--only", action="extend", nargs="+", default=[], metavar="PATTERN")
    parser.add_argument("--workers", type=int, default=2)
    parser.add_argument("--verbose", action="store_true")
    parser.add_argument("--log", default=os.devnull)
    parser.add_argument("--program", required=True)
    parser.add_argument("--shim")
    arguments = parser.parse_args()
    os.closerange(3, 256) # what the caller left open is no leak of the program
    arguments.program = kind.install(arguments.program)
    fill_panel()
    try:
        return torture(kind, arguments)
    except RuntimeError as error:
        print(f"torture: {error}", file=sys.stderr)
        return 1


def row(name):
    return ":".join(name.split(":")[:2] if name[0] in "cmk" else name.split(":")[:1])


if __name__ == "__main__":
    sys.exit(main(Torture("tools/torture", install, remember, plan, make_run, sample, row, "")))
