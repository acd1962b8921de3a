"""A reader of the database file, and a writer that locks it."""

import sqlite3
import threading
import time

PAUSE = 0.05  # seconds between two checks
READER_PATIENCE = 5.0  # seconds for which a reader waits for a lock
HISTORY = "SELECT id, time_ms, value FROM history WHERE id > ? ORDER BY id"


class Database:
    """`complain(text)` receives the errors of readers. `excused()` returns whether a failure is expected now."""

    def __init__(self, path, name, complain, excused):
        self.path = path
        self._name = name
        self._complain, self._excused = complain, excused
        self.reads = self.excused_reads = self.rows = 0
        self._last_id = 0
        self._seen = set()  # values read since the last check of the history
        self._ending = threading.Event()
        self._thread = threading.Thread(target=self._watch, daemon=True)

    def watch(self):
        """Starts to read continuously. The service must have created the file."""
        self._thread.start()

    def end(self):
        self._ending.set()
        if self._thread.is_alive():
            self._thread.join()

    def _open(self):
        return sqlite3.connect(f"file:{self.path}?mode=ro", uri=True, timeout=READER_PATIENCE)

    def value(self):
        """Returns the current value, or None if there is none yet or the database cannot be read."""
        try:
            connection = self._open()
            try:
                row = connection.execute("SELECT value FROM current_values WHERE name = ?", (self._name,)).fetchone()
            finally:
                connection.close()
        except sqlite3.Error:
            return None
        return row[0] if row else None

    def _watch(self):
        while not self._ending.wait(PAUSE):
            try:
                connection = self._open()
                try:
                    (value,) = connection.execute("SELECT value FROM current_values").fetchone()
                finally:
                    connection.close()
                self.reads += 1
                self._seen.add(value)
            except (sqlite3.Error, TypeError) as error:
                if self._excused():
                    self.excused_reads += 1
                else:
                    self._complain(f"the database cannot be read: {error}")

    def new_rows(self):
        """Returns time and value of each new row of the history. Complains about a gap in the rows, and about values
        that the reader got but that are neither in a new row nor in the row before."""
        seen, self._seen = self._seen, set()
        connection = self._open()
        try:
            rows = connection.execute(HISTORY, (max(self._last_id - 1, 0),)).fetchall()
        finally:
            connection.close()
        unknown = seen - {value for _, _, value in rows}
        for value in unknown:
            self._complain(f"a reader got a value that was never put: {value[:200]}")
        new = [row for row in rows if row[0] > self._last_id]
        if new and new[0][0] != self._last_id + 1:
            self._complain(f"the history has a gap before row {new[0][0]}")
        self._last_id = new[-1][0] if new else self._last_id
        self.rows += len(new)
        return [(time_ms / 1000, value) for _, time_ms, value in new]

    def check_whole(self):
        connection = self._open()
        try:
            found = connection.execute("PRAGMA integrity_check").fetchall()
            size = connection.execute("PRAGMA page_count").fetchone()[0] * 4
        finally:
            connection.close()
        if found != [("ok",)]:
            self._complain(f"integrity_check: {found[:3]}")
        return size

    def lock(self, seconds):
        """Holds the write lock for this many seconds."""
        connection = sqlite3.connect(self.path, isolation_level=None, timeout=READER_PATIENCE)
        try:
            connection.execute("BEGIN IMMEDIATE")
            time.sleep(seconds)
            connection.execute("ROLLBACK")
        finally:
            connection.close()
