"""Runs in company: of readers, of a writer, of a second run, of the panel's utility.

What happens depends on who comes first, so a round's name repeats the companions and their pauses only.
"""

import contextlib
import fcntl
import os
import random
import select
import sqlite3
import sys
import time

import laws
import world
from runner import DEADLINES, ENVIRONMENT, UTILITY

ROUNDS = {"readers": 300, "writer": 300, "second": 200, "utility": 200}

# What a reader may meet: a store that is locked or has a journal that is just going; the responder store is also
# made anew, and has no file or no table for a moment.
PASSING = {world.HANDLERS: {sqlite3.SQLITE_BUSY, sqlite3.SQLITE_READONLY}}
PASSING[world.RESPONDERS] = PASSING[world.HANDLERS] | {sqlite3.SQLITE_CANTOPEN, sqlite3.SQLITE_ERROR}


def names():
    for kind, rounds in ROUNDS.items():
        for number in range(rounds):
            yield f"company:{kind}:{number}"


class Companion:
    """A child process that calls `act` until it is told to stop and has once come through; what it saw amiss is its
    complaints."""

    def __init__(self, worker, number, act):
        self.path = f"{worker.base}/companion{number}"
        stopped, self.stopper = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            os.close(self.stopper)
            with open(self.path, "w", encoding="utf-8") as sys.stdout:
                try:
                    act_until(stopped, act)
                except Exception as error: # which must not reach the worker's own loop
                    print(f"L6 the companion ends by {error!r}")
            os._exit(0)
        os.close(stopped)

    def stop(self):
        with contextlib.suppress(BrokenPipeError): # it has ended by itself, and said why
            os.write(self.stopper, b"!") # the other companions hold this end, too: closing it would not do
        os.close(self.stopper)
        status = os.waitpid(self.pid, 0)[1]
        with open(self.path, encoding="utf-8") as file:
            complaints = set(file.read().splitlines())
        return complaints if status == 0 else complaints | {f"L6 the companion itself ended with {status}"}


def act_until(stopped, act):
    came_through = act()
    while not select.select([stopped], [], [], 0)[0]:
        came_through = act() or came_through
    last = time.monotonic() + DEADLINES[-1] # now that the run is over nobody is in its way
    while not came_through and time.monotonic() < last:
        came_through = act()
    if not came_through:
        print("L6 the companion never came through")


def read_once():
    """What the mail server does: whole states only, and no damage.  Whether both stores could be read."""
    can_read = True
    for store, states in ((world.RESPONDERS, [world.STALE_STATE, *world.RESPONDER_STATES]),
                          (world.HANDLERS, world.HANDLER_STATES)):
        try:
            db = sqlite3.connect(f"file:{store}?mode=ro", uri=True, isolation_level=None, timeout=0.01)
            try:
                db.execute("BEGIN")
                rows = frozenset((table, *row) for table in world.TABLES[store]
                                 for row in db.execute(f"SELECT * FROM {table}"))
            finally:
                db.close()
        except sqlite3.Error as error:
            can_read = False
            if error.sqlite_errorcode & 0xff not in PASSING[store]:
                print(f"L1 a reader of {os.path.basename(store)} sees: {error} ({error.sqlite_errorname})")
            continue
        if rows not in states:
            print(f"L4 a reader of {os.path.basename(store)} sees half a transaction: {sorted(rows)}")
    return can_read


# SQLite's locks as the kernel has them: a reader's, BEGIN IMMEDIATE's, BEGIN EXCLUSIVE's.  SQLite itself takes the
# journal of a store that was made anew for that of the file which it opened before, and removes it.
LOCKS = ((fcntl.LOCK_SH, 0x40000002, 510), (fcntl.LOCK_EX, 0x40000001, 1), (fcntl.LOCK_EX, 0x40000000, 512))


def hold_once(rng):
    """A lock of 1 to 80 ms on one of the stores, and a pause.  Whether it was had."""
    had = False
    store = rng.choice(list(world.TABLES))
    kind, first, length = rng.choice(LOCKS)
    with contextlib.suppress(FileNotFoundError, BlockingIOError, PermissionError), open(store, "rb+") as file:
        fcntl.lockf(file, kind | fcntl.LOCK_NB, length, first)
        had = True
        time.sleep(rng.uniform(0.001, 0.08))
    time.sleep(rng.uniform(0, 0.02))
    return had


def run(worker, name, undisturbed_files):
    """Makes the round of that name; yields (law, what was seen)."""
    kind = name.split(":")[1]
    rng = random.Random(name)
    if kind in ("readers", "writer"):
        acts = [read_once] * 2 if kind == "readers" else [lambda: hold_once(rng)]
        companions = [Companion(worker, i, act) for i, act in enumerate(acts)]
        outcome = worker.finish(worker.start(), [companion.pid for companion in companions])
        complaints = set().union(*(companion.stop() for companion in companions))
        yield from (complaint.split(" ", 1) for complaint in sorted(complaints))
        if not outcome.silent():
            yield "L3", f"status {outcome.status}, because somebody else was there: {outcome.stderr.strip()}"
        yield from laws.after_run(worker, outcome, undisturbed_files)
        return
    pid = worker.start()
    time.sleep(rng.uniform(0, 0.05))
    if kind == "second":
        other = worker.start(tag="-second")
    else:
        # What it says is its own affair.
        other = os.posix_spawn(UTILITY, [UTILITY, "--init-db"], ENVIRONMENT, setsid=True, file_actions=[
            (os.POSIX_SPAWN_OPEN, 2, "/dev/null", os.O_WRONLY, 0)])
    outcome = worker.finish(pid, [other])
    if kind == "second":
        second = worker.finish(other, tag="-second")
        # syslog is one for both.
        second.syslog = [line for line in outcome.syslog + second.syslog if f"[{other}]" in line]
        outcome.syslog = [line for line in outcome.syslog if f"[{pid}]" in line]
        yield from laws.ended_well(second, worker.files())
    else:
        os.waitpid(other, 0)
    yield from laws.after_run(worker, outcome, undisturbed_files)
