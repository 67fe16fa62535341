#!/usr/bin/env python3
"""What /proc says about a process's threads, for bench/footprint.sh.

  procstat.py child PARENT NAME      the pid of PARENT's child called NAME
  procstat.py snapshot PID OUT.json  every thread: name, CPU, context switches
  procstat.py idle A.json B.json     per-thread CPU and wake-ups between two
                                     snapshots, as a markdown table
  procstat.py services A.json        threads grouped by service
"""
import json
import os
import sys

# The agent names its threads; what it does not name runs in the host's.
SERVICES = {
    "StateControl": "core", "EventControl": "core", "TerminateThread": "core",
    "SessionControl": "sv", "GetTaskControl": "sv", "PutTaskControl": "sv",
    "ExecuteTask": "sv", "VideoWorker": "sv",
    "UpdateControl": "su",
    "DrmpControl": "drmp", "StatusControl": "drmp",
}
TICKS = os.sysconf("SC_CLK_TCK")


def child(parent, name):
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/stat") as f:
                stat = f.read()
        except OSError:
            continue
        comm = stat[stat.index("(") + 1:stat.rindex(")")]
        ppid = int(stat[stat.rindex(")") + 2:].split()[1])
        if ppid == parent and comm == name:
            return int(entry)
    return None


def read(path):
    with open(path) as f:
        return f.read()


def snapshot(pid):
    threads = []
    for tid in sorted(os.listdir(f"/proc/{pid}/task"), key=int):
        base = f"/proc/{pid}/task/{tid}"
        try:
            stat = read(f"{base}/stat")
            status = read(f"{base}/status")
            schedstat = read(f"{base}/schedstat").split()
            comm = read(f"{base}/comm").strip()
        except OSError:
            continue  # ended meanwhile
        fields = stat[stat.rindex(")") + 2:].split()
        switches = {}
        for line in status.splitlines():
            key, _, value = line.partition(":")
            if key in ("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches"):
                switches[key] = int(value)
        threads.append({
            "tid": int(tid), "name": comm, "main": int(tid) == pid,
            "utimeMs": int(fields[11]) * 1000 // TICKS,
            "stimeMs": int(fields[12]) * 1000 // TICKS,
            "cpuNs": int(schedstat[0]),
            "voluntary": switches.get("voluntary_ctxt_switches", 0),
            "nonvoluntary": switches.get("nonvoluntary_ctxt_switches", 0),
        })
    return {"pid": pid, "threads": threads}


# The screen stream's pipeline runs on GStreamer's and GLib's threads.
STREAMING = ("source:", "curl-transfer", "pool-")


def service(thread):
    name = thread["name"]
    if thread["main"]:
        return "host (main)"
    if name in SERVICES:
        return SERVICES[name]
    if name == "zel-host":
        return "host (other)"
    return "sv (GStreamer)" if name.startswith(STREAMING) else "other"


def idle(before, after):
    """Rows: service, thread, tid, CPU ms, user/system ticks ms, wake-ups."""
    old = {t["tid"]: t for t in before["threads"]}
    rows, gone = [], set(old)
    for t in after["threads"]:
        o = old.get(t["tid"])
        gone.discard(t["tid"])
        if o is None:
            rows.append((service(t), t["name"], t["tid"], "new", "", "", ""))
            continue
        rows.append((service(t), t["name"], t["tid"],
                     "%.3f" % ((t["cpuNs"] - o["cpuNs"]) / 1e6),
                     "%d/%d" % (t["utimeMs"] - o["utimeMs"], t["stimeMs"] - o["stimeMs"]),
                     t["voluntary"] - o["voluntary"], t["nonvoluntary"] - o["nonvoluntary"]))
    for tid in sorted(gone):
        rows.append((service(old[tid]), old[tid]["name"], tid, "ended", "", "", ""))
    return sorted(rows, key=lambda r: (r[0], r[1], r[2]))


def main():
    command = sys.argv[1]
    if command == "child":
        pid = child(int(sys.argv[2]), sys.argv[3])
        if pid is None:
            sys.exit(1)
        print(pid)
    elif command == "snapshot":
        with open(sys.argv[3], "w") as out:
            json.dump(snapshot(int(sys.argv[2])), out)
    elif command == "idle":
        before, after = (json.load(open(p)) for p in sys.argv[2:4])
        rows = idle(before, after)
        print("| service | thread | tid | CPU ms | user/sys ms (ticks) | voluntary | involuntary |")
        print("|---|---|---|---|---|---|---|")
        for row in rows:
            print("| " + " | ".join(str(c) for c in row) + " |")
        agent = [r for r in rows if not r[0].startswith("host") and r[3] not in ("new", "ended")]
        print("TOTAL\t%.3f\t%d\t%d" % (sum(float(r[3]) for r in agent),
                                      sum(r[5] for r in agent), sum(r[6] for r in agent)))
    elif command == "services":
        groups = {}
        for t in json.load(open(sys.argv[2]))["threads"]:
            groups.setdefault(service(t), []).append(t["name"])
        for name in sorted(groups):
            names = groups[name]
            counted = sorted({n: names.count(n) for n in names}.items())
            print("%s\t%d\t%s" % (name, len(names), ", ".join(
                n if c == 1 else "%s x%d" % (n, c) for n, c in counted)))
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
