#!/usr/bin/python3
"""What a run looks like from outside, for bench.py.

  onlooker.py reader MAILBOXES     asks for the reply of one mailbox after the other
  onlooker.py writer MAILBOXES     adds a handler of its own and takes it away

Says that it is ready, goes on until a line comes in, then prints as JSON how many asked-for mailboxes had no reply and
how many seconds one answer took at most.
"""
import contextlib
import json
import select
import sqlite3
import sys
import time

RESPONDERS = "/var/lib/kolmo/mail/autoresponder/responder.db"
HANDLERS = "/var/lib/kolmo/mail/handlers/handlers.db"


def insist(path, sql, values=()):
    """The rows, however often the store is locked; None when there is no such store or table."""
    while True:
        try:
            with contextlib.closing(sqlite3.connect(f"file:{path}?mode=rw", uri=True, timeout=0,
                                                    isolation_level=None)) as store:
                return store.execute(sql, values).fetchall()
        except sqlite3.OperationalError as error:
            if "locked" not in str(error):
                return None
            time.sleep(0.001)


def read(turn, mailboxes):
    number = turn % mailboxes + 1
    address = f"box{number}@d{(number - 1) // 10 + 1}-x.test"
    return not insist(RESPONDERS, "SELECT 1 FROM autoresponder WHERE mn = ?", (address,))


def write(turn, _):
    if turn % 2 == 0:
        insist(HANDLERS, "INSERT OR REPLACE INTO handlers VALUES (1, 1, 1, 1, 'onlooker', 'o', 'x', 'x', 0)")
    else:
        insist(HANDLERS, "DELETE FROM handlers WHERE name = 'onlooker'")
    time.sleep(0.005)
    return False


def main():
    act = {"reader": read, "writer": write}[sys.argv[1]]
    mailboxes, turn, longest, silent = int(sys.argv[2]), 0, 0, set()
    print("ready", flush=True)
    while not select.select([sys.stdin], [], [], 0)[0]:
        start = time.monotonic()
        if act(turn, mailboxes):
            silent.add(turn % mailboxes)
        longest = max(longest, time.monotonic() - start - (0.005 if act is write else 0))
        turn += 1
    print(json.dumps({"silent": len(silent), "longest": longest, "turns": turn}))


main()
