#!/usr/bin/python3
"""The driver of tools/bench, in tools/sandbox: makes panels, measures programs on them, and writes what came out."""
import argparse
import collections
import contextlib
import json
import os
import re
import shutil
import sqlite3
import statistics
import subprocess
import sys
import time

MAIL = "/var/lib/kolmo/mail"
RESPONDERS = MAIL + "/autoresponder/responder.db"
HANDLERS = MAIL + "/handlers/handlers.db"
HERE = os.path.dirname(os.path.realpath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))

Shape = collections.namedtuple("Shape", "domains mailboxes attachments aliases", defaults=(0, 0))  # of each
SHAPES = {
    "small": Shape(3, 3, 1, 1),
    "typical": Shape(500, 10, 1),
    "wide": Shape(100, 200),
    "attachments": Shape(100, 5, 20),
    "aliases": Shape(60, 5, 1, 2),
}
ON_DISK = ("small", "typical")
# What one thing of each kind costs is the difference to the first of these.
PARTS = {
    "nothing": (Shape(0, 0), None, 0),
    "a domain without mailboxes": (Shape(2000, 0), "nothing", 2000),
    "a mailbox": (Shape(200, 20), "200 domains", 4000),
    "an attachment": (Shape(200, 20, 5), "a mailbox", 20000),
    "200 domains": (Shape(200, 0), None, 0),
}
WHOLE = ("shapes", "parts", "growth")
GROWTH = (10, 100, 1600, 16000)  # domains of ten mailboxes


class Bench:
    def __init__(self, work, rounds):
        self.work = work
        self.rounds = rounds
        self.password = os.environ["KOLMO_SANDBOX_PASSWORD"]
        self.programs = {
            "rebuild": [ROOT + "/build/release/mail_responders_rebuild"],
            "floor": [work + "/floor", self.password],
            "script": ["/usr/bin/python3", HERE + "/plain.py", self.password],
        }

    def sql(self, text):
        subprocess.run(["mariadb", "--no-defaults", "--socket=" + os.environ["KOLMO_SANDBOX_SOCKET"], "--user=admin", "qsx"],
                       input=text, text=True, check=True, env=os.environ | {"MYSQL_PWD": self.password})

    def load(self, shape):
        """A panel of this shape; a reply has 600 bytes."""
        with open(ROOT + "/demo/panel-schema.sql", encoding="utf-8") as schema:
            tables = schema.read()
        mailboxes = shape.domains * shape.mailboxes
        statements = []
        if shape.domains:
            statements += [f"INSERT INTO domains SELECT seq, CONCAT('d', seq, '-x.test') FROM seq_1_to_{shape.domains}",
                           "INSERT INTO DomainServices SELECT id, 'mail' FROM domains"]
        if shape.domains and shape.aliases:
            statements.append("INSERT INTO domain_aliases SELECT d.id, CONCAT('a', d.id, '-', s.seq, '-y.test') "
                              f"FROM domains d, seq_1_to_{shape.aliases} s")
        if mailboxes:
            statements += [
                f"INSERT INTO mail SELECT seq, 1 + (seq - 1) DIV {shape.mailboxes}, CONCAT('box', seq), 'true' "
                f"FROM seq_1_to_{mailboxes}",
                "INSERT INTO mail_resp SELECT id, id, 'default', '', 'no', CONCAT('Away ', id), '', 'text/plain', 'UTF-8', "
                "RPAD(CONCAT('Reply ', id, ' '), 600, 'Lorem ipsum dolor sit amet '), 'true', 10, 100 FROM mail"]
        if mailboxes and shape.attachments:
            statements.append("INSERT INTO resp_attach SELECT r.id, CONCAT('file-', s.seq, '.pdf') FROM mail_resp r, "
                              f"seq_1_to_{shape.attachments} s")
        self.sql("DROP DATABASE qsx; CREATE DATABASE qsx CHARACTER SET utf8mb4; USE qsx;\n" + tables +
                 ";\n".join(statements) + ";\n")

    @staticmethod
    def reset():
        """Both stores as before a first run."""
        with contextlib.closing(sqlite3.connect(HANDLERS)) as store:
            store.execute("DELETE FROM handlers")
            store.commit()
            store.execute("VACUUM")
        with contextlib.suppress(FileNotFoundError):
            os.remove(RESPONDERS)

    @staticmethod
    def rows():
        result = []
        for path, tables in ((RESPONDERS, ("autoresponder", "attachments")), (HANDLERS, ("handlers",))):
            with contextlib.closing(sqlite3.connect(path)) as store:
                result += [sorted(store.execute(f"SELECT * FROM {table}"), key=repr) for table in tables]
        return result

    def run(self, name):
        """Seconds passed, seconds of the processor, MiB at the peak."""
        peak = self.work + "/peak"
        self.reset()
        start = time.monotonic()
        process = subprocess.Popen([self.work + "/peak_memory", peak] + self.programs[name])
        _, status, usage = os.wait4(process.pid, 0)
        passed = time.monotonic() - start
        process.returncode = status
        if status != 0:
            sys.exit(f"bench: {name} ended with status {os.waitstatus_to_exitcode(status)}")
        with open(peak, encoding="ascii") as file:
            return passed, usage.ru_utime + usage.ru_stime, int(file.read()) / 1024

    def instructions(self, name):
        self.reset()
        said = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"] + self.programs[name],
                              stderr=subprocess.PIPE, text=True, check=True).stderr
        return int(re.search(r"Collected : (\d+)", said).group(1))

    def syncs(self, name):
        trace = self.work + "/syncs"
        self.reset()
        subprocess.run(["strace", "-f", "-o", trace, "-e", "trace=fsync,fdatasync"] + self.programs[name], check=True)
        with open(trace, encoding="ascii", errors="replace") as file:
            return sum("sync(" in line for line in file)

    def same_stores(self, names):
        """Whatever they cost, they must have done the same work."""
        found = {}
        for name in names:
            self.run(name)
            found[name] = self.rows()
        first, *others = names
        for other in others:
            if found[other] != found[first]:
                sys.exit(f"bench: {other} and {first} leave different stores")

    def rounds_of(self, names, rounds, typical=statistics.median):
        """Interleaved, each round in another order: what else the machine does meets all of them."""
        runs = {name: [] for name in names}
        for i in range(rounds):
            for name in names[i % len(names):] + names[:i % len(names)]:
                runs[name].append(self.run(name))
        return {name: [typical(values) for values in zip(*runs[name])] for name in names}


@contextlib.contextmanager
def stores_on(place, disk):
    """The folders of both stores in memory, where the sandbox has them, or on a disk."""
    if place == "memory":
        yield
        return
    folder = disk + "/mail"
    shutil.rmtree(folder, ignore_errors=True)
    shutil.copytree(MAIL, folder)
    subprocess.run(["mount", "--bind", folder, MAIL], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", MAIL], check=True)
        shutil.rmtree(folder)


def say(text):
    print(text, file=sys.stderr, flush=True)


def measure_shapes(bench, shapes, disk):
    names = ["rebuild", "floor", "script"]
    result = []
    for title in shapes:
        bench.load(SHAPES[title])
        bench.same_stores(names)
        # Where 20,000 mailboxes are synced one by one, hours pass and nothing new is learnt.
        for place in ("memory", "disk") if title in ON_DISK else ("memory",):
            with stores_on(place, disk):
                say(f"{title}, on {place}")
                # A sync takes what the disk takes: a round there can be long.
                figures = bench.rounds_of(names, bench.rounds if place == "memory" else min(bench.rounds, 3))
                row = {"shape": title, "place": place, "figures": {
                    name: dict(zip(("wall", "cpu", "memory"), figures[name])) for name in names}}
                # Under the instruction counter a run takes fifty times as long.
                if place == "memory" and SHAPES[title].domains * SHAPES[title].mailboxes <= 5000:
                    for name in ("rebuild", "floor"):
                        row["figures"][name]["instructions"] = bench.instructions(name)
                if place == "disk":
                    for name in names:
                        row["figures"][name]["syncs"] = bench.syncs(name)
            result.append(row)
            say(ratio_table([row]).splitlines()[-1])
    return result


def quickest(bench, rounds):
    """What a difference is to be taken of: what else the machine does only adds to it."""
    return bench.rounds_of(["rebuild"], rounds, min)["rebuild"][0]


def measure_parts(bench, disk):
    """What one more domain, mailbox, attachment costs, and one more alias by the replies that are there."""
    costs = {}
    for place in ("memory", "disk"):
        with stores_on(place, disk):
            walls = {}
            for title, (shape, _, _) in PARTS.items():
                say(f"{title}, on {place}")
                bench.load(shape)
                walls[title] = quickest(bench, bench.rounds if place == "memory" else 1)
            for title, (_, base, count) in PARTS.items():
                if base is not None:
                    costs.setdefault(title, {})[place] = (walls[title] - walls[base]) / count
            costs.setdefault("a run", {})[place] = walls["nothing"]
    return costs


def measure_growth(bench):
    result = []
    for domains in GROWTH:
        say(f"{domains * 10} mailboxes")
        bench.load(Shape(domains, 10, 1))
        rounds = 1 if domains > 2000 else bench.rounds
        figures = bench.rounds_of(["rebuild", "floor", "script"], rounds)
        result.append({"mailboxes": domains * 10, "figures": {
            name: dict(zip(("wall", "cpu", "memory"), values)) for name, values in figures.items()}})
    return result


def measure_aliases(bench):
    """Each alias copies every reply that is there: one domain, ever more of them, one alias."""
    result = []
    for mailboxes in (400, 4000, 40000):
        walls = []
        for aliases in (0, 8):
            bench.load(Shape(mailboxes // 10, 10))
            if aliases:
                bench.sql(f"INSERT INTO domain_aliases SELECT {mailboxes // 10}, CONCAT('a', seq, '-y.test') "
                          f"FROM seq_1_to_{aliases};")
            walls.append(quickest(bench, bench.rounds))
        result.append({"replies": mailboxes, "seconds": (walls[1] - walls[0]) / 8})
        say(f"an alias beside {mailboxes} replies: {result[-1]['seconds'] * 1000:.1f} ms")
    return result


def ratio_table(rows):
    lines = ["| shape | stores on | rebuild | floor | script | wall / floor | CPU / floor | instructions / floor "
             "| memory / floor | syncs: rebuild, floor, script |",
             "| --- | --- | --- | --- | --- | --- | --- | --- | --- | --- |"]
    for row in rows:
        figures = row["figures"]
        rebuild, floor = figures["rebuild"], figures["floor"]
        ratio = [f"{rebuild[key] / floor[key]:.2f}" if key in rebuild else "" for key in
                 ("wall", "cpu", "instructions", "memory")]
        syncs = ", ".join(f"{figures[name]['syncs']}" for name in figures) if "syncs" in rebuild else ""
        lines.append(f"| {row['shape']} | {row['place']} | " +
                     " | ".join(f"{figures[name]['wall']:.3f} s" for name in ("rebuild", "floor", "script")) +
                     " | " + " | ".join(ratio) + f" | {syncs} |")
    return "\n".join(lines)


def growth_table(rows):
    lines = ["| mailboxes | rebuild | floor | script | rebuild's memory | floor's | script's |",
             "| --- | --- | --- | --- | --- | --- | --- |"]
    for row in rows:
        figures = [row["figures"][name] for name in ("rebuild", "floor", "script")]
        lines.append(f"| {row['mailboxes']} | " + " | ".join(f"{f['wall']:.2f} s" for f in figures) + " | " +
                     " | ".join(f"{f['memory']:.1f} MiB" for f in figures) + " |")
    return "\n".join(lines)


def parts_table(costs, aliases):
    lines = ["| one more | in memory | on a disk |", "| --- | --- | --- |"]
    for title, places in costs.items():
        lines.append(f"| {title} | " + " | ".join(f"{places[place] * 1000:.3f} ms" for place in ("memory", "disk")) + " |")
    for row in aliases:
        lines.append(f"| alias, {row['replies']} replies being there | {row['seconds'] * 1000:.1f} ms | |")
    return "\n".join(lines)


def plot(rows, work):
    """Wall time by mailboxes, both axes logarithmic."""
    data = work + "/growth.dat"
    with open(data, "w", encoding="ascii") as file:
        for row in rows:
            print(row["mailboxes"], *(row["figures"][name]["wall"] for name in ("rebuild", "floor", "script")), file=file)
    curves = ", ".join(f"'{data}' using 1:{column} with linespoints title '{title}'" for column, title in
                       ((2, "mail_responders_rebuild"), (3, "floor"), (4, "plain script")))
    subprocess.run(["gnuplot"], text=True, check=True, input=f"""
set terminal svg size 760,420 font 'sans-serif,13' background rgb 'white'
set output '{work}/growth.svg'
set logscale xy
set key left top
set grid
set xlabel 'mailboxes that answer'
set ylabel 'seconds'
plot {curves}
""")


def main():
    parser = argparse.ArgumentParser(prog="tools/bench", add_help=False)
    parser.add_argument("--work", help="a folder; without it the command line is looked at, and that is all")
    parser.add_argument("--disk", help="a folder on a disk")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("what", nargs="*", default=WHOLE)
    options = parser.parse_args()
    unknown = set(options.what) - {*WHOLE, *SHAPES}
    if unknown:
        parser.error(f"{', '.join(sorted(unknown))}: known are {', '.join((*SHAPES, *WHOLE))}, and alone verify and "
                     "refresh")
    if not options.work:
        return
    bench = Bench(options.work, options.rounds)
    known = os.path.join(options.work, "figures.json")
    figures = {}
    if os.path.exists(known):
        with open(known, encoding="ascii") as file:
            figures = json.load(file)
    chosen = [what for what in options.what if what in SHAPES]
    if "shapes" in options.what or chosen:
        measured = measure_shapes(bench, chosen or list(SHAPES), options.disk)
        known_rows = [row for row in figures.get("shapes", []) if row["shape"] not in {new["shape"] for new in measured}]
        figures["shapes"] = sorted(known_rows + measured, key=lambda row: list(SHAPES).index(row["shape"]))
        print(ratio_table(figures["shapes"]), flush=True)
    if "parts" in options.what:
        figures["parts"] = measure_parts(bench, options.disk)
        figures["aliases"] = measure_aliases(bench)
        print("\n" + parts_table(figures["parts"], figures["aliases"]), flush=True)
    if "growth" in options.what:
        figures["growth"] = measure_growth(bench)
        print("\n" + growth_table(figures["growth"]), flush=True)
        plot(figures["growth"], options.work)
    with open(known, "w", encoding="ascii") as file:
        json.dump(figures, file, indent=1)


main()
