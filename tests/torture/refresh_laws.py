"""The six laws for a refresh: what must hold after it, whatever happened to it or to its children.

Each function yields (law, what was seen); what is seen names no process and no digits of chance.
"""

import fcntl
import os
import re
import sqlite3

import world
from laws import FINAL
from runner import LOG_LINE, digest

LOCK = "/run/mail_responders_refresh.lock"
STAGING = "mail_responders_refresh-staging."
CHANCE = re.compile(r"(?<=staging\.)[0-9a-f]{16}|(?<=\.db-mj)[0-9A-F]{9}")
RELATIVE = {store: os.path.relpath(store, world.STORES) for store in world.TABLES}
JOURNALS = {RELATIVE[store] + "-journal" for store in world.TABLES}
NEW_FILE = RELATIVE[world.RESPONDERS] + "-refresh"
JOURNAL_LIST = re.compile(re.escape(RELATIVE[world.HANDLERS]) + r"-mj[0-9A-F]{9}$")

PROGRAM, NOTE = "mail_responders_refresh: ", "note: "
# The trouble of a comparison is not told word for word by its manual, but by its kinds.
COMPARISON = (r"(\S+ cannot be copied: |\S+ is damaged \(PRAGMA integrity_check\): |"
              r"no private copy can be made(: | in the folder for temporary files \(TMPDIR\): no space$)|"
              r"\S+ (cannot be read by the mail server's group|belongs to \d+:\d+, not to|has mode \d+, not) .*|"
              r"there is no group popuser, by which the mail server reads the stores|"
              r"\S+ is there, but (is no file|cannot be read: )|\S+ is no (file|responder store|handlers store)|"
              r"the private cop(y|ies) .*cannot be read to|"
              r"the panel database (gives no snapshot|cannot be read): ).*")
DOCUMENTED = [re.compile(COMPARISON), *(pattern for page in ("refresh", "rebuild")
                                        for pattern in world.documented_texts("mail_responders_" + page))]
LEFT_IS_GONE = re.compile(r"a refresh was killed; what it has left at \S+ is gone")


def after_run(worker, outcome):
    """All laws; leaves the stores and the rest as the run left them."""
    files, around = worker.files(), worker.around()
    yield from ended_well(worker, outcome, files, around)
    saved = worker.save("left")
    rows = yield from opened(worker, outcome)
    if rows:
        yield from old_or_new(worker, outcome, rows)
        yield from others_kept(worker, rows)
    worker.reset(saved)
    yield from run_again(worker, files, around)


# --- L1

def opened(worker, outcome):
    """The rows of both stores, as whoever opens them first finds them; None when one cannot be read."""
    rows = {}
    # Either of the two is the first to be opened by somebody.
    for store in sorted(world.TABLES, reverse=len(outcome.stderr) % 2 == 1):
        if not os.path.exists(store):
            rows[store] = None
            if store == world.HANDLERS or not worker.scenario.is_whole:
                yield "L1", f"{os.path.basename(store)} is missing"
            continue
        try:
            rows[store] = world.store_rows(store, store)
        except sqlite3.Error as error:
            yield "L1", f"{os.path.basename(store)}: {error}"
            return None
    return rows


# --- L2

def others_kept(worker, rows):
    files = worker.files()
    for name in world.OTHER_FILES:
        if files.get(name) != worker.before[name]:
            yield "L2", f"{name} was changed"
    for store, name in RELATIVE.items():
        if name in files and files[name][1:] != worker.after[name][1:]:
            yield "L2", f"{os.path.basename(store)} has another owner or mode: {files[name][1:]}"
    for row in world.FOREIGN_ROWS - rows[world.HANDLERS]:
        yield "L2", f"a handler of others is gone: {row}"


# --- L3 and L4

def old_or_new(worker, outcome, rows):
    old, new = worker.scenario.rows, FINAL
    stores = list(world.TABLES)
    first_new = {world.RESPONDERS: new[world.RESPONDERS], world.HANDLERS: old[world.HANDLERS]}
    between = worker.scenario.is_whole and rows == first_new
    if rows != old and rows != new and not between:
        state = {store: "old" if rows[store] == old[store] else "new" if rows[store] == new[store] else "neither"
                 for store in stores}
        yield "L4", "; ".join(f"{os.path.basename(store)} is {state[store]}" for store in stores)
        return
    if rows == old:
        files = worker.files()
        for name in RELATIVE.values():
            if files.get(name) != worker.before.get(name):
                yield "L4", f"{name} has its old rows, and other bytes"
    if "standard output cannot be written" in outcome.stderr: # which alone makes status 2
        return
    if outcome.status == 0 and rows != new:
        yield "L3", "success, but the stores are not the new ones"
    elif outcome.status == 2 and rows != old:
        yield "L3", "trouble, but the stores are not the old ones"
    elif outcome.status == 1 and rows != old and not between:
        yield "L3", "not published, but the stores are not the old ones"


# --- L5

KNOWN_GOOD = set()  # what was left, after which a refresh was seen to end well


def run_again(worker, files, around):
    """A state that was tried before is not tried again."""
    state = digest({CHANCE.sub("", name): content for name, content in files.items()} |
                   {CHANCE.sub("", path): None for path in around} |
                   {"noted": any(STAGING in line for line in noted())})
    if (worker.scenario.name, state) in KNOWN_GOOD:
        return
    has_folder = any(STAGING in path for path in around)
    outcome = worker.run()
    seen = list(ended_well(worker, outcome, worker.files(), worker.around()))
    rows = yield from opened(worker, outcome)
    if outcome.status != 0:
        seen.append(("L5", f"it ends with {outcome.status}: {outcome.stderr.strip()}"))
    if rows != FINAL:
        seen.append(("L5", "the stores are not the new ones"))
    if any(LEFT_IS_GONE.search(line) for line in lines_of(outcome.stderr)) != has_folder:
        seen.append(("L5", f"of what was left it says: {outcome.stderr.strip()}"))
    yield from (("L5", "the next refresh: " + what) for _, what in seen)
    if not seen:
        KNOWN_GOOD.add((worker.scenario.name, state))


# --- L6

def ended_well(worker, outcome, files, around):
    if outcome.hang:
        yield "L6", "it hangs"
        return
    if outcome.leaked:
        yield "L6", "a process stays behind"
    if outcome.signal and outcome.signal != outcome.killed_by_us:
        yield "L6", f"signal {outcome.signal}"
    if outcome.signal == 0 and outcome.status not in (0, 1, 2):
        yield "L6", f"status {outcome.status}"
    yield from left_behind(worker, outcome, files, around)
    if outcome.signal == 0:
        yield from said_enough(outcome)


def left_behind(worker, outcome, files, around):
    """A killed one leaves journals, their list, and a folder that the next one finds; one that cannot remove its
    folder leaves that; anybody else nothing."""
    expected = set(world.OTHER_FILES) | set(RELATIVE.values())
    is_killed = outcome.signal == 9
    for name in sorted(set(files) - expected):
        if not (is_killed and (name in JOURNALS or JOURNAL_LIST.fullmatch(name) or
                               (worker.scenario.is_whole and name == NEW_FILE))):
            yield "L6", "left behind: " + CHANCE.sub("", name)
    for path in around:
        if path != LOCK and not ((is_killed or outcome.injected) and STAGING in path and path in noted()):
            yield "L6", "left behind: " + CHANCE.sub("", path)
    if worker.mounts() != worker.mounts_before:
        yield "L6", "a mount is left"
    if is_locked():
        yield "L6", "the lock is held"


# What a keeper does to find that its refresh is gone, before it has asked to go with it.
LAST_CALLS = {"clone3", "close", "prctl", "poll", "exit_group"}


def children_ended(seen):
    """Who is killed takes its keeper along, and the keeper everybody else.  It may have been stopped just then."""
    calls = [name for name in seen.after_parent if name not in LAST_CALLS]
    if len(calls) > 1:
        yield "L6", f"the keeper lives on: {' '.join(calls)}"


def noted():
    if not os.path.exists(LOCK):
        return []
    with open(LOCK, encoding="utf-8") as file:
        return file.read().splitlines()


def is_locked():
    if not os.path.exists(LOCK):
        return False
    with open(LOCK, "rb") as file:
        try:
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            return True
    return False


def lines_of(stderr):
    """The messages, each in one line: long ones are wrapped."""
    return re.sub(r"\n +", " ", stderr).splitlines()


def said_enough(outcome):
    """A failure is told on standard error, and nothing but what the manuals have."""
    lines = lines_of(outcome.stderr)
    if any(re.search(r"write\(2<", line) for line in outcome.injected): # which may have cut one short
        return
    is_told = any(line.startswith(PROGRAM) and not line.startswith(PROGRAM + NOTE) for line in lines)
    if outcome.status != 0 and not is_told:
        yield "L6", f"status {outcome.status} without a message; standard error has: {outcome.stderr.strip()}"
    for line in lines:
        logged = LOG_LINE.match(line)
        text = logged[1] if logged else line.removeprefix(PROGRAM).removeprefix(NOTE)
        if not any(pattern.fullmatch(text) for pattern in DOCUMENTED):
            yield "L6", "not in the manuals: " + CHANCE.sub("", line)


# --- in company

# Somebody changed something in both tries.
TWICE = re.compile(r"changed meanwhile$|the staged stores are not what the panel says, again", re.M)


def nothing_lost(worker, outcome, added):
    """What writers added stands, and beside it the old rows or the new ones."""
    rows = {store: world.store_rows(store, store) for store in world.TABLES}
    for row in added:
        if row not in rows[world.HANDLERS if row[0] == "handlers" else world.RESPONDERS]:
            yield "L2", f"status {outcome.status}, and what a writer added is gone: {row}"
    of_others = {store: frozenset(row for row in added if (row[0] == "handlers") == (store == world.HANDLERS))
                 for store in world.TABLES}
    state = {store: rows[store] | of_others[store] for store in world.TABLES}
    new = {store: FINAL[store] | of_others[store] for store in world.TABLES}
    old = {store: worker.scenario.rows[store] | of_others[store] for store in world.TABLES}
    if outcome.status == 0 and state != new:
        yield "L3", "success, but the stores are not the new ones"
    elif outcome.status != 0 and state != old:
        yield "L3", "not published, but the stores are not the old ones"
    if outcome.status not in (0, 1) or (outcome.status == 1 and not TWICE.search(outcome.stderr)):
        yield "L3", f"status {outcome.status}, because somebody else was there: {outcome.stderr}"
