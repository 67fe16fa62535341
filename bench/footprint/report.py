#!/usr/bin/env python3
"""Figures for bench/footprint.sh: one tab-separated line each (section,
figure, value, load average, note).

  report.py term TERM.json FIGURES LOAD    ZelTerm per state, median and max
  report.py http HTTP.json FIGURES LOAD    CPU per exchange, new and reused
  report.py table FIGURES                  every figure as markdown tables
"""
import json
import sys

TERM_TARGET_MS = 50
TERM_CASES = [
    ("BM_TermIdle", "idle between polls"),
    ("BM_TermDaExchange", "da exchange held (da/notification)"),
    ("BM_TermLongPoll", "session long poll held (sv/command/get)"),
    ("BM_TermBlockDownload", "payload block held"),
    ("BM_TermStreaming", "streaming to the relay"),
    ("BM_TermDrmpCall", "drmp call held (drmp/work)"),
]
HTTP_CASES = [
    ("BM_NewConnectionExchange", "new connection (TLS handshake)"),
    ("BM_ReusedConnectionExchange", "reused connection"),
]


def runs(path):
    found = {}
    for b in json.load(open(path))["benchmarks"]:
        found.setdefault(b["run_name"].split("/")[0], []).append(b)
    return found


def append(path, rows, load):
    with open(path, "a") as out:
        for section, figure, value, note in rows:
            out.write("\t".join([section, figure, value, load, note]) + "\n")


def term(path):
    found = runs(path)
    rows = []
    for name, label in TERM_CASES:
        entries = found.get(name, [])
        errors = [b for b in entries if b.get("error_occurred")]
        times = [b["real_time"] for b in entries
                 if b.get("run_type") == "iteration" and not b.get("error_occurred")]
        if errors or not times:
            message = errors[0].get("error_message", "") if errors else "no run"
            rows.append(("term", label, "failed", message))
            continue
        times.sort()
        median, worst = times[len(times) // 2], times[-1]
        verdict = "under %d ms" % TERM_TARGET_MS if worst < TERM_TARGET_MS else \
            "OVER %d ms" % TERM_TARGET_MS
        rows.append(("term", label, "%.2f ms median, %.2f ms max" % (median, worst),
                     "%d runs; %s" % (len(times), verdict)))
    return rows


def http(path):
    found = runs(path)
    rows = []
    for name, label in HTTP_CASES:
        entries = [b for b in found.get(name, []) if b.get("aggregate_name") == "median"]
        if not entries:
            rows.append(("http", label, "failed", ""))
            continue
        b = entries[0]
        rows.append(("http", label + ": CPU per exchange",
                     "%.0f us" % b["CpuUs"],
                     "calling thread (getrusage); wall %.0f us; %d connection(s) seen by the "
                     "server in the last run" % (b["real_time"], b["Connections"])))
    return rows


TITLES = {
    "library": "libzel.so",
    "idle": "Idle agent",
    "idle-threads": "Threads of the idle agent and its host, per service",
    "threads": "Threads of each run (after its activity; while streaming)",
    "heap": "Memory",
    "term": "ZelTerm to Uninitialized (target under %d ms)" % TERM_TARGET_MS,
    "http": "CPU per da exchange",
}


def table(path):
    sections = {}
    for line in open(path):
        fields = line.rstrip("\n").split("\t")
        sections.setdefault(fields[0], []).append(fields[1:])
    for section in ["library", "idle", "idle-threads", "heap", "threads", "term", "http"]:
        if section not in sections:
            continue
        print()
        print("### " + TITLES[section])
        print()
        print("| Figure | Value | Load (1 min) | Note |")
        print("|---|---|---|---|")
        for figure, value, load, note in sections[section]:
            print("| %s | %s | %s | %s |" % (figure, value, load, note))


def main():
    command = sys.argv[1]
    if command in ("term", "http"):
        rows = term(sys.argv[2]) if command == "term" else http(sys.argv[2])
        append(sys.argv[3], rows, sys.argv[4])
    elif command == "table":
        table(sys.argv[2])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
