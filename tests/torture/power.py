"""What a power cut can leave of the two stores.

An undisturbed run's writes to both stores, their journals and folders are recorded, with the syncs.  Until it
is synced, a write may be on the disk or not, sector by sector; what is done to a folder (a file made or
removed) gets there in its order, but as late as its sync.  An image is one such state.
"""

import os
import random
import re

import world
from calls import undisturbed

SECTOR = 512
VARIANTS = 12 # images at each sync: nothing, everything, and random ones
CALLS = "openat,pwrite64,ftruncate,fdatasync,fsync,unlink"


class File:
    """What is surely on the disk, and what was written since, in order: (offset, bytes), or (size, None)."""

    def __init__(self, content=b""):
        self.synced = content
        self.pending = []

    def content(self, chosen):
        """With those of the pending pieces that `chosen` accepts."""
        data = bytearray(self.synced)
        for offset, piece in self.pending:
            if not chosen():
                continue
            if piece is None:
                del data[offset:]
                continue
            data.extend(bytes(max(0, offset - len(data))))
            data[offset:offset + len(piece)] = piece
        return bytes(data)

    def write(self, offset, data):
        while data:
            room = SECTOR - offset % SECTOR
            self.pending.append((offset, data[:room]))
            offset, data = offset + room, data[room:]

    def sync(self):
        self.synced = self.content(lambda: True)
        self.pending = []


class Disk:
    """Both stores' folders.  A name is bound to a File on the disk, or not."""

    def __init__(self, files):
        self.names = {name: File(content) for name, content in files.items()}
        self.synced_names = dict(self.names)
        self.pending_names = [] # (name, File or None), in order
        self.commits = {store: 0 for store in world.TABLES}

    def apply(self, call):
        """Whether the call was a sync; the images are made before it takes effect."""
        what, path, *rest = call
        if what == "create":
            if path not in self.names:
                self.bind(path, File())
        elif what == "unlink":
            self.bind(path, None)
            store = path.removesuffix("-journal")
            if store != path and store in self.commits:
                self.commits[store] += 1
        elif what == "write":
            self.names[path].write(*rest)
        elif what == "truncate":
            self.names[path].pending.append((rest[0], None))

    def sync(self, path):
        if path in self.names:
            self.names[path].sync()
            return
        # A folder: what was done to its names, in their order.
        for name, file in self.pending_names:
            if os.path.dirname(name) == path:
                self.set(self.synced_names, name, file)
        self.pending_names = [entry for entry in self.pending_names if os.path.dirname(entry[0]) != path]

    def bind(self, name, file):
        self.set(self.names, name, file)
        self.pending_names.append((name, file))

    @staticmethod
    def set(names, name, file):
        if file is None:
            names.pop(name, None)
        else:
            names[name] = file

    def image(self, variant, rng):
        """The files that are found afterwards."""
        names = dict(self.synced_names)
        kept = {0: 0, 1: len(self.pending_names)}.get(variant, rng.randint(0, len(self.pending_names)))
        for name, file in self.pending_names[:kept]:
            self.set(names, name, file)
        share = {0: 0.0, 1: 1.0}.get(variant, rng.random())
        return {name: file.content(lambda: rng.random() < share) for name, file in names.items()}


def record(worker):
    """The calls of a run as (what, path, ...), and the stores' files at its beginning."""
    worker.reset()
    undisturbed(worker.run(worker.strace("-xx", "-s", "1000000", "-e", "trace=" + CALLS)))
    calls = []
    for line in worker.text("trace").splitlines():
        call = parse(line)
        if call and call[1].startswith(world.STORES + "/"):
            calls.append(call)
    # The responder store is as the utility made it.
    worker.reset()
    worker.make_responders()
    files = {os.path.join(world.STORES, name): content[0] for name, content in worker.files().items()}
    return calls, files


def unhex(text):
    return bytes.fromhex(text.replace("\\x", ""))


def parse(line):
    match = re.match(r'(\w+)\((?:\d+<((?:\\x..)*)>|(?:AT_FDCWD<[^>]*>, )?"((?:\\x..)*)")(.*)\) += (-?\d+)', line)
    if match is None or int(match[5]) < 0:
        return None
    name, path, rest = match[1], unhex(match[2] or match[3]).decode(), match[4]
    if name == "openat":
        return ("create", path) if "O_CREAT" in rest else None
    if name == "unlink":
        return "unlink", path
    if name == "pwrite64":
        data, offset = re.match(r', "((?:\\x..)*)", \d+, (\d+)', rest).groups()
        return "write", path, int(offset), unhex(data)
    if name == "ftruncate":
        return "truncate", path, int(rest.strip(", "))
    return "sync", path


def syncs(recording):
    return [i for i, call in enumerate(recording[0]) if call[0] == "sync"] + [len(recording[0])]


def names(recording):
    for number in range(len(syncs(recording))):
        for variant in range(VARIANTS):
            yield f"power:{number}:{variant}"


def image(recording, name):
    """The files of the image of that name, and how many commits each store had made by then."""
    _, number, variant = name.split(":")
    calls, files = recording
    disk = Disk(files)
    for call in calls[:syncs(recording)[int(number)]]:
        if call[0] == "sync":
            disk.sync(call[1])
        else:
            disk.apply(call)
    return disk.image(int(variant), random.Random(name)), disk.commits
