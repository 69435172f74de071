"""Runs a program beside a reader and a writer of the stores; prints what each of them met, in a line."""
import concurrent.futures
import multiprocessing
import sqlite3
import subprocess
import sys
import time

RESPONDERS = "/var/lib/kolmo/mail/autoresponder/responder.db"
HANDLERS = "/var/lib/kolmo/mail/handlers/handlers.db"
over = multiprocessing.Event()


def read(mailboxes):
    """As the mail server's handler does: a connection for each question."""
    questions = silent = 0
    longest = 0.0
    while not over.is_set():
        for name in mailboxes:
            start = time.monotonic()
            try:
                connection = sqlite3.connect(RESPONDERS, timeout=60)
                found = connection.execute("SELECT body FROM autoresponder WHERE mn = ?", (name,)).fetchone()
                connection.close()
            except sqlite3.Error:
                found = None
            longest = max(longest, time.monotonic() - start)
            questions += 1
            silent += found is None
            if over.is_set():
                break
    return questions, silent, longest


def write():
    connection = sqlite3.connect(HANDLERS, timeout=60, isolation_level=None)
    written = 0
    longest = 0.0
    while not over.is_set():
        start = time.monotonic()
        connection.execute("REPLACE INTO handlers VALUES (2, 1, 1, 10, 'bench', ?, '/bench', 'bench', 0)",
                           (f"bench{written}@bench.test",))
        longest = max(longest, time.monotonic() - start)
        written += 1
        time.sleep(0.005)
    kept = connection.execute("SELECT count(*) FROM handlers WHERE name = 'bench'").fetchone()[0]
    connection.execute("DELETE FROM handlers WHERE name = 'bench'")
    return written, written - kept, longest


def peak_memory(process):
    """Of the process alone, in KiB; its children's is their own."""
    peak = 0
    while process.poll() is None:
        try:
            with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
                for line in status:
                    if line.startswith("VmHWM:"):
                        peak = int(line.split()[1])
        except OSError:
            pass
        time.sleep(0.005)
    return peak


def main():
    connection = sqlite3.connect(RESPONDERS)
    mailboxes = [row[0] for row in connection.execute("SELECT mn FROM autoresponder")]
    connection.close()
    with concurrent.futures.ProcessPoolExecutor(2) as company:
        reader, writer = company.submit(read, mailboxes), company.submit(write)
        try:
            time.sleep(0.2)
            start = time.monotonic()
            with subprocess.Popen(sys.argv[1:], stdout=subprocess.DEVNULL) as program:
                peak = peak_memory(program)
            seconds = time.monotonic() - start
        finally:
            over.set()
        # Whoever has failed, or is gone, fails this, too.
        questions, silent, longest_question = reader.result()
        written, lost, longest_write = writer.result()
    print(f"{seconds:8.2f} s  {peak / 1024:6.1f} MiB  "
          f"silent {silent} of {questions}  longest question {longest_question * 1000:.0f} ms  "
          f"lost {lost} of {written}  longest write {longest_write * 1000:.0f} ms")
    return program.returncode


if __name__ == "__main__":
    sys.exit(main())
