"""The six laws: what must hold after a run, whatever happened to it.

Each function yields (law, what was seen).  What is seen names no process, so that a row of the table of
exceptions can match it.
"""

import itertools
import os
import re
import sqlite3

import world
from runner import LOG_LINE, SYSLOG_LINE, digest

DOCUMENTED = list(world.documented_texts())
SYSTEM_TEXTS = sorted({os.strerror(number) for number in range(1, 134)}, key=len, reverse=True)
RELATIVE = {store: os.path.relpath(store, world.STORES) for store in world.TABLES}
FINAL = {world.RESPONDERS: world.RESPONDER_STATES[-1], world.HANDLERS: world.HANDLER_STATES[-1]}

# The texts that stand for rows which a store refused.
REFUSED_ATTACHMENT = re.compile(r"Unable to add autoresponder attachment \((.*?)\): ")
REFUSED_HEADER = re.compile(r"Unable to add autoresponder extra headers: ")
REFUSED_HANDLER = re.compile(r"Unable to execute insert record into handlers database: ")


def after_run(worker, outcome, undisturbed_files):
    """All laws; leaves the stores as the run left them."""
    files = worker.files()
    yield from ended_well(outcome, files)
    yield from of_the_stores(worker, outcome, files, undisturbed_files)


def of_the_stores(worker, outcome, files, undisturbed_files):
    """L1 to L5: what the files show."""
    copy = worker.save("copy") # opening a store can change it
    rows = {}
    for store in world.TABLES:
        rows[store] = yield from opened(copy, store, outcome)
    yield from others_kept(files, undisturbed_files, rows[world.HANDLERS])
    if outcome.status == 0:
        yield from all_done(rows, outcome)
    yield from prefix_kept(rows, outcome)
    yield from run_again(worker, digest(files))


def opened(folder, store, outcome):
    """L1; the store's rows, None for a store that is not there or has no tables, the stale rows included."""
    path = os.path.join(folder, RELATIVE[store])
    if not os.path.exists(path) or os.path.getsize(path) == 0:
        # The utility has removed the store, and could not make it again or was not waited for.
        if store == world.HANDLERS or not (outcome.signal or utility_failed(outcome)):
            yield "L1", f"{os.path.basename(store)} is missing or empty"
        return None
    try:
        return world.store_rows(path, store)
    except sqlite3.Error as error:
        yield "L1", f"{os.path.basename(store)}: {error}"
    return None


def utility_failed(outcome):
    return "Unable to re-initialize autoresponder's database" in outcome.stderr


def others_kept(files, undisturbed_files, handlers):
    """L2."""
    for name in world.OTHER_FILES:
        if files.get(name) != undisturbed_files[name]:
            yield "L2", f"{name} was changed"
    store = RELATIVE[world.HANDLERS]
    if store in files and files[store][1:] != undisturbed_files[store][1:]:
        yield "L2", "the handlers store has another owner or mode"
    if handlers is not None:
        for row in world.FOREIGN_ROWS - handlers:
            yield "L2", f"a handler of others is gone: {row}"


def all_done(rows, outcome):
    """L3; a refused row, too, was reported."""
    if outcome.silent():
        if rows != FINAL:
            yield "L3", "success in silence, but " + differences(rows)
        return
    for store in world.TABLES:
        if not any(rows[store] == STATES[store](refused)[-1] for refused in REFUSALS[store](outcome.stderr)):
            yield "L3", f"success, but {differences(rows)}; standard error: {outcome.stderr.strip()}"
            return


def prefix_kept(rows, outcome):
    """L4, for both stores."""
    for store, states in (
            (world.RESPONDERS, [world.STALE_STATE] if outcome.signal or outcome.status != 0 else []),
            (world.HANDLERS, [])):
        states += STATES[store]()
        if rows[store] is None or rows[store] in states or any(
                rows[store] in STATES[store](refused) for refused in REFUSALS[store](outcome.stderr)):
            continue
        nearest = min(states, key=lambda state: len(state ^ rows[store]))
        yield "L4", (f"{os.path.basename(store)} is no prefix; nearest: missing {sorted(nearest - rows[store])}"
                     f" too many {sorted(rows[store] - nearest)}; standard error: {outcome.stderr.strip()}")


def refused_handlers(stderr):
    """Which ones, in every way that the messages allow."""
    return itertools.combinations(world.WRITTEN_HANDLERS, len(REFUSED_HANDLER.findall(stderr)))


def refused_responder_rows(stderr):
    mailboxes = sorted(REFUSED_ATTACHMENT.findall(stderr))
    for attachments in itertools.combinations(world.WRITTEN_ATTACHMENTS, len(mailboxes)):
        if sorted(row[1] for row in attachments) == mailboxes:
            for headers in itertools.combinations(world.WRITTEN_HEADERS, len(REFUSED_HEADER.findall(stderr))):
                yield attachments + headers


STATES = {world.RESPONDERS: world.responder_states, world.HANDLERS: world.handler_states}
REFUSALS = {world.RESPONDERS: refused_responder_rows, world.HANDLERS: refused_handlers}

KNOWN_GOOD = set()  # states after which a run was seen to end well


def run_again(worker, state):
    """L5; a state that was tried before is not tried again."""
    if state in KNOWN_GOOD:
        return
    outcome = worker.run()
    if outcome.hang:
        yield "L5", f"{HANG}, the next run"
        return
    rows = {}
    for store in world.TABLES:
        path = os.path.join(worker.stores, RELATIVE[store])
        try:
            rows[store] = world.store_rows(path, store)
        except sqlite3.Error as error:
            rows[store] = None
            yield "L5", f"after the next run: {os.path.basename(store)}: {error}"
            return
    if not outcome.silent():
        yield "L5", f"the next run ends with {outcome.status}: {outcome.stderr.strip()}"
    elif rows != FINAL:
        yield "L5", "after the next run " + differences(rows)
    elif set(worker.files()) != set(world.OTHER_FILES) | set(RELATIVE.values()):
        yield "L5", f"the next run leaves {sorted(worker.files())}"
    else:
        KNOWN_GOOD.add(state)


def differences(rows):
    texts = []
    for store, final in FINAL.items():
        have = rows[store] or frozenset()
        if have != final:
            texts.append(f"{os.path.basename(store)}: missing {sorted(final - have)}"
                         f" too many {sorted(have - final)}")
    return "; ".join(texts)


# --- L6

# What a machine that is too busy could bring about, too.
LATE = HANG, STAYS = "it hangs", "a process stays behind"


def ended_well(outcome, files):
    if outcome.hang:
        yield "L6", HANG
        return
    if outcome.leaked:
        yield "L6", STAYS
    if outcome.signal:
        if outcome.signal != outcome.killed_by_us:
            crash = [line for line in outcome.report if line.startswith("crash ")]
            yield "L6", f"signal {outcome.signal}: {' '.join(crash)}"
        return
    if outcome.status not in (0, 1, 255):
        yield "L6", f"status {outcome.status}"
    yield from left_behind(outcome, files)
    yield from said_enough(outcome)
    yield from said_documented(outcome)


def left_behind(outcome, files):
    """What a run that ended by itself leaves besides the stores."""
    for line in outcome.report:
        if not line.startswith("open "):
            continue
        target = line.split()[2]
        # The connection to syslog lasts as long as the process; what strace did not let close is no leak.
        if not (target.startswith("socket:") and outcome.syslog) and not deaf(
                outcome, r"^close\(\d+<(UNIX:)?" + re.escape(target)):
            yield "L6", "left open: " + re.sub(r":\[\d+\]", "", target)
    expected = set(world.OTHER_FILES) | set(RELATIVE.values())
    if outcome.status != 0: # a transaction that could not be rolled back keeps its way back
        expected |= {name + "-journal" for name in RELATIVE.values()}
    for name in sorted(set(files) - expected):
        yield "L6", f"left behind: {name}"


def deaf(outcome, patterns):
    """Whether one of the calls that failed was a message on its way."""
    return any(re.search(patterns, line) for line in outcome.injected)


def said_enough(outcome):
    """A failure is told on standard error and to syslog, in the same words."""
    stderr_deaf = deaf(outcome, r"write\([12]<")
    syslog_deaf = deaf(outcome, r'"/dev/log"|sendto\(\d+<[^>]*>, "<\d+>|SOCK_DGRAM')
    if outcome.status != 0 and not outcome.stderr.strip() and not stderr_deaf:
        yield "L6", "a failure without a message on standard error"
    if outcome.status != 0 and not outcome.syslog and not syslog_deaf:
        yield "L6", "a failure without a message in syslog; standard error has: " + outcome.stderr.strip()
    if stderr_deaf or syslog_deaf:
        return
    printed = [match[1] for match in map(LOG_LINE.search, outcome.stderr.splitlines()) if match]
    logged = [match[1].rstrip("\n") for match in map(SYSLOG_LINE.match, outcome.syslog) if match]
    if printed != logged:
        yield "L6", f"syslog has {logged}, standard error {printed}"


def said_documented(outcome):
    """Every line is one of the manual's."""
    utility_speaks = False # after the line that announces its output
    for line in outcome.stderr.splitlines():
        line = without_open_failure(line)
        logged = LOG_LINE.match(line)
        text = logged[1] if logged else line
        if logged:
            utility_speaks = False
        if text.endswith(" execution failed:"):
            utility_speaks = True
        elif not utility_speaks and not is_documented(text):
            yield "L6", "not in the manual: " + text
    for line in outcome.syslog:
        match = SYSLOG_LINE.match(line)
        if not match or not is_documented(match[1].rstrip("\n")):
            yield "L6", "not in the manual, to syslog: " + line


def without_open_failure(line):
    """The line behind "Failed to open FILE: REASON", which has no newline of its own."""
    if line.startswith("Failed to open "):
        for text in SYSTEM_TEXTS:
            head, found, rest = line.partition(": " + text)
            if found and " " not in head[len("Failed to open "):]:
                return rest
    return line


def is_documented(text):
    return text == "" or re.fullmatch(r"System error \d+: .*", text) is not None or \
        any(pattern.fullmatch(text) for pattern in DOCUMENTED)


# --- after a power cut: no run ended, there is only what it left

def after_power_cut(worker, commits, undisturbed_files):
    """L1, L2, L4 and L5 for an image made after so many commits to each store."""
    files = worker.files()
    copy = worker.save("copy")
    rows = {}
    for store, states in ((world.RESPONDERS, world.RESPONDER_STATES), (world.HANDLERS, world.HANDLER_STATES)):
        name = os.path.basename(store)
        try:
            rows[store] = world.store_rows(os.path.join(copy, RELATIVE[store]), store)
        except (OSError, sqlite3.Error) as error:
            yield "L1", f"{name}: {error}"
            continue
        number = commits[store]
        if rows[store] in states[number:number + 1]:
            continue
        if number > 0 and rows[store] in states[number - 1:number]:
            yield "L4", f"{name} has lost its latest commit"
        else:
            yield "L4", f"{name} is no state of a run after {number} commits"
    yield from others_kept(files, undisturbed_files, rows.get(world.HANDLERS))
    yield from run_again(worker, digest(files))
