"""The world that every run finds, and what each commit of a run makes of its two stores.

The model knows nothing of the program: it is written from the data, so that a program that commits at
the wrong moment differs from it.
"""

import os
import re
import sqlite3

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
STORES = "/var/lib/kolmo"
RESPONDERS = STORES + "/mail/autoresponder/responder.db"
HANDLERS = STORES + "/mail/handlers/handlers.db"

# Ids and names are in the same order: whatever index the server walks along, the rows come out alike.
# A mailbox is (id, name, subject, text, forward address or None, attachments); no subject, no reply.
DOMAINS = [
    (1, "bücher.example", [], [
        (11, "Post", "Ihr Brief", "Vielen Dank, wir antworten bald.\n", None, []),
        (12, "Presse", "Eingangsbestätigung", "Die Prüfung dauert 6–8 Wochen.\n", None, ["plan.pdf"])]),
    (2, "one.example", ["uno.example"], [
        (21, "info", "Re: <request_subject>", "We answer within two days.\n" * 40, "archive@one.example",
         ["catalogue.pdf", "map.png"]),
        (22, "Jane", "Away", "I'm on holiday until 3 August.\n", None, []),
        (23, "quiet", None, None, None, [])]),
    (3, "parked.example", [], []),
]
HEADERS = [("Auto-Submitted", "auto-replied"), ("X-Priority", "5")]

# Handlers as they stand before a run, in the order of the table's columns.  The third is of an older
# release and is replaced, the fourth's mailbox no longer answers: it stays.
HOOKS = "/opt/qsx/handlers/hooks/"
FOREIGN = [
    (1, 4, 1, 100, "archive", "all", HOOKS + "archive", "none", 1),
    (1, 1, 1, 20, "virus-check", "info@one.example", HOOKS + "virus-check", "none", 1),
    (2, 1, 0, 10, "autoresponder", "jane@one.example", HOOKS + "autoresponder-v1", "none", 0),
    (2, 1, 1, 90, "autoresponder", "quiet@one.example", HOOKS + "autoresponder", "responder", 0),
    (2, 1, 1, 50, "spam-filter", "one.example", HOOKS + "spam-filter", "strict", 0),
]
# Files of others beside the stores.
OTHER_FILES = {"mail/handlers/README": b"Not ours.\n", "mail/autoresponder/attachments/map.png": b"\x89PNG"}

TABLES = {
    RESPONDERS: ("autoresponder", "attachments", "extra_headers"),
    HANDLERS: ("handlers",),
}


def literal(value):
    return "NULL" if value is None else "'" + value.replace("'", "''").replace("\n", "\\n") + "'"


def panel_sql():
    """The panel's database, without its tables."""
    for domain, name, aliases, mailboxes in DOMAINS:
        yield f"INSERT INTO domains VALUES ({domain}, {literal(name)})"
        if mailboxes:
            yield f"INSERT INTO DomainServices VALUES ({domain}, 'mail'), ({domain}, 'web')"
        for alias in aliases:
            yield f"INSERT INTO domain_aliases (dom_id, name) VALUES ({domain}, {literal(alias)})"
        for mailbox, local, subject, text, forward, files in mailboxes:
            answers = "true" if subject else "false"
            yield f"INSERT INTO mail VALUES ({mailbox}, {domain}, {literal(local)}, '{answers}')"
            if not subject:
                continue
            yield (f"INSERT INTO mail_resp (id, mn_id, resp_name, subject, text) VALUES ({mailbox + 100}, "
                   f"{mailbox}, 'default', {literal(subject)}, {literal(text)})")
            if forward:
                yield f"INSERT INTO resp_forward VALUES ({mailbox + 100}, {literal(forward)})"
            for file in files:
                yield f"INSERT INTO resp_attach VALUES ({mailbox + 100}, {literal(file)})"
    json = "{" + ", ".join(f'"{name}": "{value}"' for name, value in HEADERS) + "}"
    yield ("INSERT INTO ServiceNodeConfiguration (name, value, serviceNodeId, section) VALUES "
           f"('auto_reply_headers', {literal(json)}, 1, 'mailServer')")


def responder_states(refused=()):
    """What the responder store holds after each commit of a run that `refused` rows do not get into, the empty
    store first."""
    rows = set()
    states = [frozenset()]

    def commit(new):
        rows.update(row for row in new if row not in refused)
        if new:
            states.append(frozenset(rows))

    for _, domain, aliases, mailboxes in DOMAINS:
        for _, local, subject, text, forward, files in mailboxes:
            if subject:
                mn = f"{local.lower()}@{domain}"
                commit([("autoresponder", mn, "", "no", subject, "", forward or "", "text/plain", "UTF-8",
                         text, 10, 100, mn)])
                commit([("attachments", mn, file) for file in files])
        for alias in aliases:
            commit([(row[0], row[1].replace("@" + domain, "@" + alias), *row[2:])
                    for row in sorted(rows, key=repr) if "@" + domain in row[1]])
    commit([("extra_headers", *header) for header in HEADERS])
    return states


def handler_key(row):
    """A handler replaces the one that has the same: its queue, type, name and address."""
    return row[0], row[1], row[4], row[5]


def handler_states(refused=()):
    """The same for the handlers store, as it stood before the run first; `refused` are keys."""
    rows = {handler_key(row): row for row in FOREIGN}
    states = [frozenset(rows.values())]

    def commit(new):
        rows.update({handler_key(row): row for row in new if handler_key(row) not in refused})
        states.append(frozenset(rows.values()))

    for _, domain, aliases, mailboxes in DOMAINS:
        ascii_domain = domain.encode("idna").decode()
        if mailboxes:
            commit([(2, 1, 1, 90, "autoresponder", f"{local.lower()}@{ascii_domain}",
                     HOOKS + "autoresponder", "responder", 0)
                    for _, local, subject, *_ in mailboxes if subject])
        for alias in aliases:
            # All columns but the last, which protects a handler from being restored over.
            commit([(*row[:5], row[5].replace(domain, alias), *row[6:8], 0)
                    for row in rows.values() if domain in row[5]])
    return [frozenset(("handlers", *row) for row in state) for state in states]


RESPONDER_STATES = responder_states()
HANDLER_STATES = handler_states()
# What a run writes row by row, so that the store can refuse one: the keys of handlers, and whole rows.
WRITTEN_HANDLERS = sorted({handler_key(row[1:]) for row in HANDLER_STATES[-1] - HANDLER_STATES[0]})
WRITTEN_ATTACHMENTS = sorted(
    {("attachments", f"{local.lower()}@{domain}", file) for _, domain, _, mailboxes in DOMAINS
     for _, local, *_, files in mailboxes for file in files})
WRITTEN_HEADERS = [("extra_headers", *header) for header in HEADERS]
# What an earlier run left, and what is gone as soon as the utility has done its work.
STALE_STATE = frozenset({("attachments", "gone@one.example", "old.pdf")})
# The rows of others: those that no run replaces.
FOREIGN_ROWS = HANDLER_STATES[0] & HANDLER_STATES[-1]


def make_template(folder, utility):
    """The stores as a run finds them, below `folder`; `utility` makes an empty responder store."""
    for name, content in OTHER_FILES.items():
        path = os.path.join(folder, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content)
    handlers = os.path.join(folder, os.path.relpath(HANDLERS, STORES))
    with open(ROOT + "/tools/stand-in/handlers-store.sql", encoding="utf-8") as file:
        schema = file.read()
    db = sqlite3.connect(handlers, isolation_level=None)
    db.executescript(schema)
    db.executemany("INSERT INTO handlers VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)", FOREIGN)
    db.close()
    utility()
    responders = os.path.join(folder, os.path.relpath(RESPONDERS, STORES))
    db = sqlite3.connect(responders, isolation_level=None)
    db.executemany("INSERT INTO attachments VALUES (?, ?)", [row[1:] for row in STALE_STATE])
    db.close()


def store_rows(path, store):
    """The rows of the store at `path`, which is opened with write access: a journal is rolled back.

    Raises sqlite3.Error; a store that fails its check counts as one that cannot be read.
    """
    db = sqlite3.connect(path, isolation_level=None, timeout=60)
    try:
        verdict = db.execute("PRAGMA integrity_check").fetchall()
        if verdict != [("ok",)]:
            raise sqlite3.DatabaseError(str(verdict))
        return frozenset((table, *row) for table in TABLES[store]
                         for row in db.execute(f"SELECT * FROM {table}"))
    finally:
        db.close()


def documented_texts(page="mail_responders_rebuild"):
    """A manual's messages, as patterns; each with any of the endings that the manual explains beside one."""
    with open(f"{ROOT}/man/{page}.8", encoding="utf-8") as file:
        page = file.read().replace("\\\n", "")
    diagnostics = re.search(r"^\.SH DIAGNOSTICS\n(.*?)^\.SH", page, re.M | re.S)[1]
    endings = "|".join(re.escape(ending.replace("\\-", "-"))
                       for ending in re.findall(r'^\.B "([:;] .*)"$', diagnostics, re.M))
    for text in re.findall(r"^\.T[PQ]\n\.B (.*)$", diagnostics, re.M):
        parts = re.split(r"\\fI(.*?)\\fP", text.replace("\\-", "-"))
        parts[::2] = map(re.escape, parts[::2])
        parts[1::2] = (r"\d+" if name in ("number", "pid") else ".*" for name in parts[1::2])
        yield re.compile("".join(parts) + f"({endings})*", re.S)
