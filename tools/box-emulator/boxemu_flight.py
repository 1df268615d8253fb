"""Requests in flight and how many of a kind were open at once.

Every logged request carries "started" (its head was read) and "ended" (the
last byte of its answer was about to be handed to the socket, or the
connection was given up), both time.monotonic() seconds of the emulator.
Both ends lie inside the time the client has the request open: the client
sent the head before "started", and cannot have the whole answer before
"ended".  So the number of requests open at once here is never more than
the client had open, and a client that keeps N requests open while the
emulator serves them shows N."""

import re
import threading
import time


class InFlight:
    """The log entries of requests being served (the log itself takes a
    request only once its answer is decided)."""

    def __init__(self):
        self.lock = threading.Lock()
        self.open = {}

    def begin(self, entry):
        entry["started"] = time.monotonic()
        with self.lock:
            self.open[id(entry)] = entry

    def end(self, entry):
        if entry.get("ended") is None:
            entry["ended"] = time.monotonic()
        with self.lock:
            self.open.pop(id(entry), None)

    def entries(self):
        with self.lock:
            return list(self.open.values())


def concurrency(entries, method=None, path_regex=None):
    """{"peak": most open at once, "open": open now, "count": how many
    matched} over the entries with this method and a path the regex finds
    (re.search, as faults match).  An entry that has not ended is open."""
    pattern = re.compile(path_regex) if path_regex else None
    method = method.upper() if method else None
    events = []
    count = still_open = 0
    for entry in entries:
        if method and entry["method"] != method:
            continue
        if pattern and not pattern.search(entry["path"]):
            continue
        count += 1
        events.append((entry["started"], 1))
        if entry.get("ended") is None:
            still_open += 1
        else:
            events.append((entry["ended"], -1))
    # At one instant an end goes before a start: touching is not overlapping.
    events.sort()
    peak = level = 0
    for _, step in events:
        level += step
        peak = max(peak, level)
    return {"peak": peak, "open": still_open, "count": count}
