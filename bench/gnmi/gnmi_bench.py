#!/usr/bin/python3
"""The gNMI benchmark: the agent at full rate on ten tables with 0, 1, 10 and 100 ON_CHANGE
subscribers (the agent's changes/s, change-to-collector latency, the target's CPU per
million updates sent), then a Get of a full 65,536-entry table.

    bench/gnmi/gnmi_bench.py [--build build/release] [--changes 300000] [--subscribers 0 1 10 100]
                             [--nice 10]

Each run has a shared-memory root of its own under /dev/shm, a hardware side, a target
(plaintext on localhost) and vesk_gnmi_bench as the collectors. Prints a table, and the
raw figures as JSON with --json."""

import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time


def ticks_of(pid):
    """User and system CPU of process `pid`, in seconds."""
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Root:
    def __init__(self, build):
        self.build = build
        self.path = tempfile.mkdtemp(prefix="vesk-gnmi-bench-", dir="/dev/shm")
        self.env = dict(os.environ, VESK_SHM_ROOT=self.path, VESK_LOG_STDERR="0")
        self.children = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for child in reversed(self.children):
            if child.poll() is None:
                child.terminate()
                try:
                    child.wait(10)
                except subprocess.TimeoutExpired:
                    child.kill()
                    child.wait()
        shutil.rmtree(self.path, ignore_errors=True)

    def start(self, argv, **kwargs):
        child = subprocess.Popen(argv, env=self.env, **kwargs)
        self.children.append(child)
        return child

    def vesktap(self, *args):
        return [f"{self.build}/tools/vesktap", *args]

    def hw(self):
        return self.start(self.vesktap("hw", "--progress-ms", "0"), stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL)

    def target(self, nice=0):
        target = self.start(["nice", "-n", str(nice), f"{self.build}/tools/gnmi/vesktap-gnmi",
                             "--insecure", "--listen", "localhost:0"],
                            stderr=subprocess.PIPE, text=True)
        line = target.stderr.readline()
        found = re.search(r"\(port (\d+),", line)
        if not found:
            sys.exit(f"gnmi_bench: the target did not start: {line.strip()}")
        return target, int(found.group(1))

    def agent(self, *args):
        done = subprocess.run(self.vesktap("agent", "--units", "0", "--progress-ms", "0",
                                           "--no-verify", "--report-json", "-", *args),
                              env=self.env, capture_output=True, text=True, timeout=600)
        if done.returncode != 0:
            sys.exit(f"gnmi_bench: the agent failed: {done.stderr.strip()}")
        return json.loads(done.stdout)


def subscribers_run(build, subscribers, changes, keys, nice, agent_args):
    with Root(build) as root:
        root.hw()
        target, port = root.target(nice)
        collectors = None
        if subscribers > 0:
            # The collectors stand for other machines: below everything else here.
            collectors = root.start(["nice", "-n", "19", f"{build}/bench/vesk_gnmi_bench",
                                     "subscribe", "--port",
                                     str(port), "--subscribers", str(subscribers),
                                     "--versions", str(changes)],
                                    stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
            assert collectors.stdout.readline().strip() == "ready"
            time.sleep(1)  # the streams are made and synced
        cpu = ticks_of(target.pid)
        report = root.agent("--keys", str(keys), "--changes", str(changes), *agent_args)
        time.sleep(1)  # the last changes reach the collectors
        cpu = ticks_of(target.pid) - cpu
        result = {"subscribers": subscribers, "changesPerSecond": report["committed"] /
                  report["runSeconds"], "targetCpuSeconds": cpu}
        if collectors:
            out, _ = collectors.communicate(timeout=60)
            result.update(json.loads(out.strip().splitlines()[-1]))
            if result["updates"]:
                result["cpuSecondsPerMillionUpdates"] = cpu / result["updates"] * 1e6
        return result


def get_run(build):
    """A Get of one unit's full DefaultFwdTcamEntry table: 65,536 entries."""
    with Root(build) as root:
        workload = os.path.join(root.path, "fill.workload")
        with open(workload, "w") as out:
            out.writelines(f"write DefaultFwdTcamEntry 0 {k}\n" for k in range(65536))
        root.hw()
        root.agent("--workload", workload)
        _, port = root.target()
        got = []
        for encoding in ("PROTO", "JSON_IETF"):
            done = subprocess.run([f"{build}/bench/vesk_gnmi_bench", "get", "--port", str(port),
                                   "--path", "/tables/table[name=DefaultFwdTcamEntry]/units"
                                   "/unit[id=0]/entries", "--times", "3", "--encoding", encoding],
                                  capture_output=True, text=True, timeout=600)
            if done.returncode != 0:
                sys.exit(f"gnmi_bench: {done.stderr.strip()}")
            got.append(json.loads(done.stdout))
        return got


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default="build/release", help="the build directory")
    parser.add_argument("--changes", type=int, default=300000, help="changes of the workload")
    parser.add_argument("--keys", type=int, default=4096, help="keys per table")
    parser.add_argument("--subscribers", type=int, nargs="+", default=[0, 1, 10, 100])
    parser.add_argument("--nice", type=int, default=10,
                        help="the target's niceness (its systemd unit's Nice=, 10)")
    parser.add_argument("--agent-args", default="",
                        help="more options for the agent, e.g. \"--window 8 --target-latency-us "
                        "0\" for a gentler rate than full")
    parser.add_argument("--no-get", action="store_true", help="leave out the Get")
    parser.add_argument("--json", action="store_true", help="print the raw figures as JSON")
    args = parser.parse_args()
    for program in ("tools/vesktap", "tools/gnmi/vesktap-gnmi", "bench/vesk_gnmi_bench"):
        if not os.access(os.path.join(args.build, program), os.X_OK):
            sys.exit(f"gnmi_bench: no {program} in {args.build}: build it first "
                     "(cmake --preset release && cmake --build build/release)")
    runs = [subscribers_run(args.build, n, args.changes, args.keys, args.nice,
                            args.agent_args.split()) for n in args.subscribers]
    got = [] if args.no_get else get_run(args.build)
    if args.json:
        print(json.dumps({"subscribers": runs, "get": got}, indent=2))
        return
    base = runs[0]["changesPerSecond"]
    print("| subscribers | agent changes/s | vs first | updates sent | p50 µs | p99 µs | "
          "target CPU s / M updates | streams ended |")
    print("|---|---|---|---|---|---|---|---|")
    for r in runs:
        latency = r.get("latency_us", {})
        print(f"| {r['subscribers']} | {r['changesPerSecond']:,.0f} | "
              f"{100 * r['changesPerSecond'] / base - 100:+.1f} % | {r.get('updates', 0):,} | "
              f"{latency.get('p50', '-')} | {latency.get('p99', '-')} | "
              f"{r.get('cpuSecondsPerMillionUpdates', float('nan')):.2f} | "
              f"{r.get('ended', 0)} {r.get('why', '')} |")
    for g in got:
        print(f"\nGet of {g['path']} ({g['encoding']}): {g['notifications']:,} entries, "
              f"{g['bytes']:,} bytes, median {g['median_ms']} ms")


if __name__ == "__main__":
    main()
