#!/usr/bin/python3
"""Torture harness for vesktap: kills, damaged segments and readers racing a dying agent.

Drives the real `vesktap` program (agent, hw, show) on a fresh shared-memory root per trial
and checks what it finds against an oracle computed here from the workload generated here.
A trial depends on (seed, trial index) alone; docs/reliability.md tells how to run it.
Single-threaded, but for the timer that kills in a reader trial.
"""

import argparse
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
from collections import defaultdict

TABLES = [f"{name}Tcam{role}" for name in ("DefaultFwd", "ServicePolicyMac", "ServicePolicyV4",
                                            "ServicePolicyV6", "TapTunnelTermination")
          for role in ("Action", "Entry")]
KINDS = ["kill", "damage", "reader"]
SHOW_TIMEOUT = 5.0    # every read, of clean or damaged memory, answers within this
AGENT_TIMEOUT = 20.0  # plus 5 ms a change
STALL = 5.0           # an agent whose progress lines stand still this long hangs
HW_IDLE_MS = 300      # a hardware side run to idle stops after this long without work


def is_action(table):
    return table.endswith("Action")


# --- workload and oracle -----------------------------------------------------------------

def make_workload(rng, max_changes):
    """(units, changes); a change is (op, table, unit, key, variant)."""
    tables = rng.sample(TABLES, rng.randint(1, 4))
    units = sorted(rng.sample([0, 1, 2, 3, 7], rng.randint(1, 3)))
    keys = rng.choice([1, 2, 4, 8, 32, 200])
    p_remove_all, p_remove = rng.choice([0.0, 0.005, 0.02, 0.1]), rng.choice([0.05, 0.2, 0.5])
    changes = []
    for _ in range(rng.randint(1, max_changes)):
        t, u, r = rng.choice(tables), rng.choice(units), rng.random()
        if r < p_remove_all:
            changes.append(("removeAll", t, u, 0, 0))
        elif r < p_remove_all + p_remove:
            changes.append(("remove", t, u, rng.randrange(keys), 0))
        else:
            changes.append(("write", t, u, rng.randrange(keys), rng.randrange(1000) if is_action(t) else 0))
    return units, changes


def workload_text(changes):
    lines = []
    for op, t, u, k, v in changes:
        words = [op, t, u] + ([] if op == "removeAll" else [k])
        words += [v] if op == "write" and is_action(t) else []
        lines.append(" ".join(map(str, words)) + "\n")
    return "".join(lines)


class Oracle:
    """What the tables hold after a run of changes: (table, unit, key) -> variant."""

    def __init__(self, changes=()):
        self.state, self.by_unit = {}, defaultdict(set)
        for c in changes:
            self.apply(c)

    def apply(self, change):
        """Applies one change; returns the slots it may have changed."""
        op, t, u, k, v = change
        if op == "removeAll":
            slots = [(t, u, key) for key in self.by_unit.pop((t, u), ())]
            for slot in slots:
                del self.state[slot]
            return slots
        if op == "write":
            self.state[(t, u, k)] = v
            self.by_unit[(t, u)].add(k)
        elif self.state.pop((t, u, k), None) is not None:
            self.by_unit[(t, u)].discard(k)
        return [(t, u, k)]


def differing(expected, observed):
    return {s for s in set(expected) | set(observed) if expected.get(s) != observed.get(s)}


def closest_prefix(changes, lowest, observed):
    """(slots differing, n, those slots, oracle, last n as close) of the prefixes n >= lowest
    whose oracle is closest to `observed`."""
    oracle = Oracle(changes[:lowest])
    bad = differing(oracle.state, observed)
    best = [len(bad), lowest, set(bad), dict(oracle.state), lowest]
    for n in range(lowest, len(changes)):
        if not bad:
            break
        for slot in oracle.apply(changes[n]):
            (bad.add if oracle.state.get(slot) != observed.get(slot) else bad.discard)(slot)
        if len(bad) < best[0]:
            best = [len(bad), n + 1, set(bad), dict(oracle.state), n + 1]
        elif len(bad) == best[0]:
            best[4] = n + 1
    return best


def describe_diff(expected, observed, slots, limit=4):
    words = []
    for slot in sorted(slots, key=str)[:limit]:
        e, o = expected.get(slot), observed.get(slot)
        what = "lost" if o is None else "resurrected" if e is None else f"holds {o} instead of {e}"
        words.append(f"{slot[0]}/{slot[1]}/key {slot[2]} {what}")
    return "; ".join(words) + (f" (+{len(slots) - limit} more)" if len(slots) > limit else "")


# --- what show prints --------------------------------------------------------------------

def expected_entry(table, key, variant):
    """The fields of the entry the agent writes for (key, variant), as `show --json` gives
    them; every other field is zero."""
    if is_action(table):
        return {"entryKey": {"index": key},
                "action": {"kind": "drop" if variant % 3 == 2 else "redirect", "flags": 1 | 8,
                           "vlanId": 100 + variant % 4000, "redirectPort": 1 + (key + variant) % 48,
                           "counterId": key}}
    fields = {"priority": key, "ingressPort": {"value": 1 + key % 48, "mask": 0xFFFFFFFF},
              "actionIndex": key % 1024}
    if not table.startswith("TapTunnel"):
        fields["vlan"] = {"value": 100 + key % 4000, "mask": 0x0FFF}
    return {"entryKey": fields}


ZEROS = (0, False, "0.0.0.0", "::", "00:00:00:00:00:00")


def matches(shown, expected):
    """Whether a record of `show --json` holds the expected fields and zero in the rest."""
    if not isinstance(shown, dict):
        return shown == expected if expected is not None else shown in ZEROS
    return all(matches(value, (expected or {}).get(name)) for name, value in shown.items()) \
        and set(expected or {}) <= set(shown)


def decode_show(text):
    """(state, units whose TCAM differs from the configuration) of `show --json --entries`.
    An entry that is not one the workload writes reads as ("garbled", its fields)."""
    state, tcam = {}, []
    for table in json.loads(text)["tables"]:
        name = table["table"]
        for unit in table["units"]:
            for e in unit.get("entries", []):
                k = e["key"].get("index", e["key"].get("priority"))
                v = e["entry"]["action"]["vlanId"] - 100 if is_action(name) else 0
                state[(name, unit["unit"], k)] = v if matches(e["entry"], expected_entry(name, k, v)) \
                    else ("garbled", json.dumps(e["entry"]))
            live, lines = unit.get("liveEntries", 0), (unit.get("tcam") or {}).get("lines", 0)
            if unit.get("notInHardware", 0) or lines != live:
                tcam.append(f"{name}/{unit['unit']}: {live} entries, TCAM {lines} lines, "
                            f"{unit.get('notInHardware', 0)} entries not in it")
    return state, tcam


# --- processes ---------------------------------------------------------------------------

class TrialAbort(Exception):
    """A failure after which nothing sensible is left to check in the trial."""


class Unrunnable(Exception):
    """vesktap cannot be started at all (e.g. rebuilt under the harness): stops the run."""


class Proc:
    """One process a Runner started; its stdout and stderr go to two files of the trial."""

    def __init__(self, name, popen, out, err):
        self.name, self.popen, self.out, self.err = name, popen, out, err
        self.killed = self.terminated = False
        self.started = time.monotonic()

    def stdout(self):
        with open(self.out, errors="replace") as f:
            return f.read()

    def stderr(self):
        with open(self.err, errors="replace") as f:
            return f.read()

    def why(self):
        """Its last line on stderr, else on stdout, for a failure line."""
        for text in (self.stderr(), self.stdout()):
            lines = [line for line in text.splitlines() if line.strip()]
            if lines:
                return lines[-1][:240]
        return "(no output)"


class Progress:
    """Follows the progress lines (--progress-ms) an agent prints into its stderr file."""

    LINE = re.compile(r"progress: (\d+)/\d+ accepted, \d+ committed, (\d+) confirmed")

    def __init__(self, path):
        self.path, self.offset, self.partial = path, 0, ""
        self.accepted = self.confirmed = 0
        self.moved = time.monotonic()

    def poll(self):
        with open(self.path, errors="replace") as f:
            f.seek(self.offset)
            text = f.read()
            self.offset = f.tell()
        *lines, self.partial = (self.partial + text).split("\n")
        for m in filter(None, map(self.LINE.match, lines)):
            if (int(m.group(1)), int(m.group(2))) != (self.accepted, self.confirmed):
                self.accepted, self.confirmed = int(m.group(1)), int(m.group(2))
                self.moved = time.monotonic()


class Runner:
    """Starts the vesktap processes of one trial on its root, their output in its log folder.

    Owned by one trial; cleanup() SIGKILLs whatever it started that still runs. A hang, or a
    death by a signal the harness did not send, fails the trial and aborts it.
    """

    def __init__(self, exe, root, logdir, trial):
        self.exe, self.logdir, self.trial = exe, logdir, trial
        self.env = {k: v for k, v in os.environ.items() if k != "VESK_TRACE"}
        self.env["VESK_SHM_ROOT"] = root
        self.procs = []

    def spawn(self, name, *args):
        base = os.path.join(self.logdir, f"{len(self.procs) + 1:02d}-{name}")
        with open(base + ".out", "w") as out, open(base + ".err", "w") as err:
            try:
                popen = subprocess.Popen([self.exe, *map(str, args)], stdout=out, stderr=err,
                                         stdin=subprocess.DEVNULL, env=self.env)
            except OSError as e:
                raise Unrunnable(f"cannot start {self.exe}: {e}")
        self.procs.append(Proc(name, popen, base + ".out", base + ".err"))
        return self.procs[-1]

    def finish(self, proc, timeout):
        """Waits up to `timeout` seconds for `proc`; returns its exit status."""
        try:
            rc = proc.popen.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.kill(proc)
            proc.popen.wait()
            self.trial.fail(f"hang: {proc.name} did not finish within {timeout:.0f} s ({proc.err})")
            raise TrialAbort()
        if rc == 127:
            raise Unrunnable(proc.why())
        mine = (proc.killed and rc == -signal.SIGKILL) or (proc.terminated and rc == -signal.SIGTERM)
        if rc < 0 and not mine:
            self.trial.fail(f"crash: {proc.name} died by {signal.Signals(-rc).name}: {proc.why()}")
            raise TrialAbort()
        return rc

    def run(self, name, *args, timeout):
        proc = self.spawn(name, *args)
        self.finish(proc, timeout)
        return proc

    def kill(self, proc):
        if proc.popen.poll() is None:
            proc.killed = True
            proc.popen.send_signal(signal.SIGKILL)

    def stop(self, proc):
        """Stops a hardware side as an operator would, with SIGTERM."""
        if proc.popen.poll() is None:
            proc.terminated = True
            proc.popen.send_signal(signal.SIGTERM)
        self.finish(proc, 5.0)

    def cleanup(self):
        for proc in self.procs:
            self.kill(proc)
            proc.popen.wait()


# --- trials ------------------------------------------------------------------------------

class Trial:
    """One randomized trial on a fresh root under /dev/shm, kept when it fails."""

    def __init__(self, args, index, kind, repetition=0):
        self.args, self.index, self.kind = args, index, kind
        self.rng = random.Random(f"{args.seed}/{index}")
        self.dir = f"/dev/shm/vesk-torture-{args.seed}-{index}-{os.getpid()}-{repetition}"
        self.root, self.logs = os.path.join(self.dir, "shm"), os.path.join(self.dir, "logs")
        self.failures, self.figures = [], defaultdict(list)

    def fail(self, what):
        self.failures.append(what)

    def run(self):
        shutil.rmtree(self.dir, ignore_errors=True)
        os.makedirs(self.logs)
        os.makedirs(self.root, mode=0o700)
        self.runner = Runner(self.args.vesktap, self.root, self.logs, self)
        try:
            getattr(self, f"{self.kind}_trial")()
        except TrialAbort:
            pass
        except (Unrunnable, KeyboardInterrupt):
            raise
        except Exception as e:  # a fault of the harness must not pass for a clean trial
            self.fail(f"harness error: {type(e).__name__}: {e}")
        finally:
            self.runner.cleanup()
        if not self.failures and not self.args.keep:
            shutil.rmtree(self.dir, ignore_errors=True)

    def write_workload(self, name, changes):
        path = os.path.join(self.logs, name)
        with open(path, "w") as f:
            f.write(workload_text(changes))
        return path

    def agent_args(self, units, workload=None):
        return ["agent", "--units", *units] + (["--workload", workload] if workload else ["--changes", 0])

    def run_agent(self, name, units, changes, *flags):
        """Runs an agent over `changes`, which must succeed; returns its JSON report."""
        report = os.path.join(self.logs, f"{name}.json")
        workload = self.write_workload(f"{name}.txt", changes) if changes else None
        proc = self.runner.run(name, *self.agent_args(units, workload), *flags, "--report-json", report,
                               timeout=AGENT_TIMEOUT + 0.005 * len(changes))
        if proc.popen.returncode != 0:
            self.fail(f"{name}: agent exited {proc.popen.returncode}: {proc.why()}")
            raise TrialAbort()
        with open(report) as f:
            return json.load(f)

    def settle_hardware(self):
        return self.runner.run("hw-idle", "hw", "--exit-when-idle", HW_IDLE_MS, timeout=20.0)

    def show(self, name):
        return self.runner.run(name, "show", "--json", "--entries", timeout=SHOW_TIMEOUT)

    def read_state(self, step):
        """The state show reports; after the hardware side went idle its TCAMs must agree."""
        proc = self.show(f"show-{step}")
        if proc.popen.returncode != 0:
            self.fail(f"{step}: show exited {proc.popen.returncode}: {proc.why()}")
            raise TrialAbort()
        state, tcam = decode_show(proc.stdout())
        if tcam:
            self.fail(f"{step}: a TCAM differs from its configuration with the hardware side idle: "
                      + "; ".join(tcam[:3]))
        return state

    def expect_exact(self, step, changes, observed):
        expected = Oracle(changes).state
        bad = differing(expected, observed)
        if bad:
            self.fail(f"{step}: {describe_diff(expected, observed, bad)}")

    def follow(self, agent, progress, accepted):
        """Waits until the agent has accepted `accepted` changes (True) or exits (False)."""
        while agent.popen.poll() is None:
            progress.poll()
            if accepted is not None and progress.accepted >= accepted:
                return True
            if time.monotonic() - progress.moved > STALL:
                self.fail(f"hang: agent stood still for {STALL:.0f} s at {progress.accepted} changes "
                          f"accepted, {progress.confirmed} confirmed ({agent.out})")
                raise TrialAbort()
            time.sleep(0.0002)
        return False

    def kill_trial(self):
        """SIGKILL the agent, the hardware side or both at a random moment; restart; compare."""
        rng = self.rng
        window1 = rng.random() < 0.5  # one change in flight: the confirmed ones come first
        units, changes = make_workload(rng, 600 if window1 else 4000)
        target = rng.choice(["agent", "hw", "both"])
        r = rng.random()  # at once, while the agent starts, or once it wrote part of the workload
        at = 0.0 if r < 0.15 else 1e-5 * 3000 ** rng.random() if r < 0.35 else None
        accepted, extra_delay = rng.randrange(len(changes)), rng.uniform(0, 0.002)
        gap, hw_pause, hw_first = rng.uniform(0, 0.005), rng.choice([0, 0.001, 0.02]), rng.random() < 0.5
        self.figures["target " + target].append(1)

        hw = self.runner.spawn("hw", "hw")
        flags = ["--window", 1, "--target-latency-us", 0] if window1 else []
        workload = self.write_workload("workload.txt", changes)
        agent = self.runner.spawn("agent", *self.agent_args(units, workload), "--progress-ms", 1, *flags)
        progress = Progress(agent.err)
        if at is not None:
            time.sleep(at)
        elif self.follow(agent, progress, accepted):
            time.sleep(extra_delay)
        victims = {"agent": [agent], "hw": [hw], "both": [hw, agent] if hw_first else [agent, hw]}[target]
        for i, proc in enumerate(victims):
            time.sleep(gap if i else 0)
            self.runner.kill(proc)
        if hw.killed:
            time.sleep(hw_pause)
            self.runner.finish(hw, 5.0)
            hw = self.runner.spawn("hw2", "hw")
        self.follow(agent, progress, None)
        self.runner.finish(agent, 5.0)
        if not agent.killed:
            if agent.popen.returncode != 0:
                self.fail(f"agent exited {agent.popen.returncode}: {agent.why()}")
                raise TrialAbort()
            self.runner.stop(hw)
            self.settle_hardware()
            self.expect_exact("finished run", changes, self.read_state("finished"))
            return

        progress.poll()
        confirmed = progress.confirmed
        report = self.run_agent("restore", units, [])
        self.figures["restore ms"].append(report["restoreMs"])
        self.runner.stop(hw)
        self.settle_hardware()
        observed = self.read_state("restored")
        if report["restoredEntries"] != len(observed):
            self.fail(f"restore: the agent restored {report['restoredEntries']} entries, "
                      f"show lists {len(observed)}")
        self.check_restored(changes, confirmed, observed)

        # The rest of the workload (all of it when the confirmed changes are not the first
        # ones) over what was restored ends exactly in the oracle.
        hw = self.runner.spawn("hw3", "hw")
        self.run_agent("replay", units, changes[confirmed:] if window1 else changes)
        self.runner.stop(hw)
        self.settle_hardware()
        self.expect_exact("replay", changes, self.read_state("replayed"))

    def check_restored(self, changes, confirmed, observed):
        """Changes commit in the order they were written, each whole (a restart finishes or
        undoes one a kill cut), and a confirmed one was committed: the restored state is the
        oracle of a prefix at least as long as the count of confirmed changes."""
        count, n, bad, expected, last = closest_prefix(changes, confirmed, observed)
        if count:
            cut = [i for i in range(n - 1, min(last + 8, len(changes))) if changes[i][0] == "removeAll"
                   and all(s[:2] == changes[i][1:3] for s in bad)]
            half = f" (probably the remove-all that is change {cut[0]}, left half done)" if cut else ""
            self.fail(f"restore: {confirmed} changes confirmed, the closest prefix ({n}) differs{half}: "
                      + describe_diff(expected, observed, bad))

    def damage_trial(self):
        """Damage one file after a clean run: show, a restarted agent and the hardware side
        must each report it (exit status or stderr) or be right."""
        rng = self.rng
        units, changes = make_workload(rng, 400)
        split = rng.randint(0, len(changes)) if rng.random() < 0.5 else len(changes)
        hw = self.runner.spawn("hw", "hw")
        self.run_agent("agent", units, changes[:split])
        self.runner.stop(hw)
        if split < len(changes):  # the rest stays in the change logs, not in the TCAMs
            self.run_agent("agent-nowait", units, changes[split:], "--no-wait")
        else:
            self.settle_hardware()
        expected = Oracle(changes).state
        clean = self.show("show-clean")
        if clean.popen.returncode != 0 or decode_show(clean.stdout())[0] != expected:
            self.fail(f"clean run: show does not list what the workload left: {clean.why()}")
            raise TrialAbort()

        path, what = damage_file(rng, self.root)
        self.figures["file " + segment_kind(path)].append(1)
        self.figures["damage " + what.split()[0]].append(1)
        self.damage = f"{what} of {os.path.relpath(path, self.root)}"
        with open(os.path.join(self.logs, "damage.txt"), "w") as f:
            f.write(self.damage + "\n")

        reported = self.judge_read("show", self.show("show-damaged"), expected)
        report = os.path.join(self.logs, "restart.json")
        agent = self.runner.run("restart", *self.agent_args(units), "--report-json", report,
                                timeout=AGENT_TIMEOUT)
        if agent.popen.returncode != 0 or agent.stderr().strip():
            reported = True
        else:
            with open(report) as f:
                restored = json.load(f)["restoredEntries"]
            if restored < len(expected):
                self.fail(f"silently hidden: a restarted agent restored {restored} of {len(expected)} "
                          f"entries and said nothing ({self.damage})")
        hw = self.settle_hardware()
        hw_said = hw.popen.returncode != 0 or bool(hw.stderr().strip())
        after = self.show("show-restarted")
        if not reported and not hw_said:
            self.judge_read("show after the restart", after, expected)
        # The hardware side must bring the TCAMs level with the configurations, or say why
        # not; damage to a configuration or a TCAM that was reported already excuses it.
        excused = segment_kind(path) == "configuration" or (segment_kind(path) == "tcam" and reported)
        if not hw_said and not excused and after.popen.returncode == 0:
            tcam = decode_show(after.stdout())[1]
            if tcam:
                self.fail(f"silently out of step: nothing said a word, and with the hardware side "
                          f"idle a TCAM differs from its configuration: {tcam[0]} ({self.damage})")
        self.figures["reported" if reported or hw_said else "unreported"].append(1)

    def judge_read(self, step, proc, expected):
        """True when the read reported the damage; a silent read must list the oracle."""
        if proc.popen.returncode != 0 or proc.stderr().strip():
            return True
        try:
            observed = decode_show(proc.stdout())[0]
        except (ValueError, KeyError) as e:
            self.fail(f"{step}: exit 0, nothing on stderr and unreadable output ({e}) ({self.damage})")
            return False
        bad = differing(expected, observed)
        if len(observed) < len(expected):
            self.fail(f"silently hidden: {step} lists {len(observed)} of {len(expected)} entries, "
                      f"exit 0, nothing on stderr ({self.damage})")
        elif bad:
            self.fail(f"silently wrong: {step}: {describe_diff(expected, observed, bad)} ({self.damage})")
        return False

    def reader_trial(self):
        """Read in a loop while the agent, the hardware side or both are killed, and after;
        every read answers in time, and one after the restart succeeds."""
        rng = self.rng
        units, changes = make_workload(rng, 3000)
        delay, after = rng.uniform(0.0, 0.05 + 40e-6 * len(changes)), rng.uniform(0.2, 1.0)
        target = rng.choice(["agent", "hw", "both"])
        self.figures["target " + target].append(1)
        hw = self.runner.spawn("hw", "hw")
        workload = self.write_workload("workload.txt", changes)
        agent = self.runner.spawn("agent", *self.agent_args(units, workload))
        victims = {"agent": [agent], "hw": [hw], "both": [agent, hw]}[target]
        timer = threading.Timer(delay, lambda: [self.runner.kill(p) for p in victims])
        timer.start()
        try:
            while time.monotonic() < agent.started + delay + after:
                self.timed_read("read")
        finally:
            timer.cancel()
        self.runner.kill(agent)  # one the kill spared may wait for a hardware side that is gone
        self.runner.finish(agent, 5.0)
        self.runner.stop(hw)
        self.run_agent("restore", units, [])
        self.settle_hardware()
        last = self.timed_read("read-restored")
        if last.popen.returncode != 0:
            self.fail(f"a read after the restart exited {last.popen.returncode}: {last.why()}")

    def timed_read(self, name):
        begin = time.monotonic()
        proc = self.show(name)
        self.figures["read ms"].append(1000 * (time.monotonic() - begin))
        if proc.popen.returncode != 0:
            self.figures["reads refused"].append(1)
        else:
            try:
                json.loads(proc.stdout())
            except ValueError:
                self.fail(f"{name}: exit 0 with unreadable output")
        os.remove(proc.out)  # hundreds of reads a trial: keep only their stderr
        return proc


# --- damage ------------------------------------------------------------------------------

def segment_kind(path):
    for part, kind in [("/.namespace/", "namespace"), ("/tcam/", "tcam"), ("/entryLog/", "changeLog"),
                       ("/tableVersion/", "versionMap")]:
        if part in path:
            return kind
    return "configuration"


def damage_file(rng, root):
    """Damages one file under `root`, picked by kind first; returns (path, what was done)."""
    files = defaultdict(list)
    for dirpath, _, names in os.walk(root):
        for name in names:
            files[segment_kind(os.path.join(dirpath, name))].append(os.path.join(dirpath, name))
    weights = {"configuration": 3, "changeLog": 2, "tcam": 2, "versionMap": 1, "namespace": 1}
    kinds = sorted(files)
    path = rng.choice(files[rng.choices(kinds, [weights[k] for k in kinds])[0]])
    size = os.path.getsize(path)
    how = rng.choice(["remove", "garbage"]) if size == 0 else \
        rng.choice(["flip", "flip", "zero", "truncate", "extend"])
    if how == "remove":
        os.remove(path)
        return path, "removal"
    if how == "garbage":
        with open(path, "wb") as f:
            f.write(rng.randbytes(rng.randint(1, 8192)))
        return path, "garbage written"
    if how == "truncate":
        length = rng.choice([0, rng.randrange(4096), rng.randrange(size)])
        os.truncate(path, length)
        return path, f"truncation to {length} bytes"
    if how == "extend":
        os.truncate(path, size + rng.randint(1, 1 << 20))
        return path, "extension"
    with open(path, "r+b") as f:
        if how == "zero":
            at, length = pick_offset(rng, f.fileno(), size), rng.choice([8, 64, 512, 4096, 65536])
            os.pwrite(f.fileno(), bytes(min(length, size - at)), at)
            return path, f"zeroing of {length} bytes at {at}"
        offsets = [pick_offset(rng, f.fileno(), size) for _ in range(rng.randint(1, 8))]
        for at in offsets:
            byte = os.pread(f.fileno(), 1, at)[0]
            os.pwrite(f.fileno(), bytes([byte ^ (1 << rng.randrange(8))]), at)
        return path, f"flipped bits at {offsets}"


def pick_offset(rng, fd, size):
    """In the header page, anywhere in a region holding data, or on a byte not zero there
    (a live link, count or record rather than an empty bucket)."""
    if rng.random() < 0.25:
        return rng.randrange(min(size, 4096))
    extents, at = [], 0
    while at < size:
        try:
            start = os.lseek(fd, at, os.SEEK_DATA)
        except OSError:
            break
        at = os.lseek(fd, start, os.SEEK_HOLE)
        extents.append((start, at))
    start, end = rng.choice(extents) if extents else (0, size)
    if rng.random() < 0.3:
        return rng.randrange(start, end)
    rng.shuffle(extents)
    for start, end in [e for e in extents if e[1] - e[0] <= (4 << 20)][:16]:
        data = os.pread(fd, end - start, start)
        nonzero = [i for i in range(4096 if start == 0 else 0, len(data)) if data[i]]
        if nonzero:
            return start + rng.choice(nonzero)
    return rng.randrange(start, end)


# --- report ------------------------------------------------------------------------------

def percentile(values, p):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(p / 100 * len(ordered)))]


def report(trials, seed):
    for kind in KINDS:
        mine = [t for t in trials if t.kind == kind]
        figures = defaultdict(list)
        for t in mine:
            for name, values in t.figures.items():
                figures[name].extend(values)
        words = [f"{name} p50 {percentile(v, 50):.1f} p99 {percentile(v, 99):.1f} max {max(v):.1f}"
                 if name.endswith(" ms") else f"{name} {sum(v)}" for name, v in sorted(figures.items())]
        if mine:
            failed = sum(1 for t in mine if t.failures)
            print(f"{kind}: {len(mine)} trials, {failed} failed; " + ", ".join(words))
    for t in trials:
        if t.failures:
            print(f"\nFAILED {t.kind} trial {t.index} (kept {t.dir})")
            for what in t.failures:
                print(f"  {what}")
            print(f"  reproduce: python3 tests/torture/torture.py --seed {seed} --trial {t.index} "
                  f"--kind {t.kind}")
    failed = sum(1 for t in trials if t.failures)
    print(f"\n{len(trials) - failed} passed, {failed} failed")
    return failed


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--budget", type=float, default=60.0, help="seconds in which trials are started")
    parser.add_argument("--vesktap", default=os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                                          "../../build/release/tools/vesktap"))
    parser.add_argument("--kind", choices=KINDS + ["all"], default="all")
    parser.add_argument("--trial", type=int, help="run only this trial")
    parser.add_argument("--repeat", type=int, default=1, help="run --trial this many times (a kill "
                        "that must land inside a narrow window may need several)")
    parser.add_argument("--keep", action="store_true", help="keep every trial's directory")
    args = parser.parse_args()
    args.vesktap = os.path.abspath(args.vesktap)
    if not os.access(args.vesktap, os.X_OK):
        sys.exit(f"torture: no vesktap at {args.vesktap}: build it, or name it with --vesktap PATH")

    def indices():
        begin, index = time.monotonic(), 0
        while args.trial is None and time.monotonic() - begin < args.budget:
            yield index, 0
            index += 1
        for repetition in range(args.repeat if args.trial is not None else 0):
            yield args.trial, repetition

    trials, stopped = [], None
    try:
        for n, repetition in indices():
            kind = KINDS[n % len(KINDS)] if args.kind == "all" else args.kind
            trials.append(Trial(args, n, kind, repetition))
            trials[-1].run()
    except Unrunnable as e:
        stopped = f"torture: stopped, vesktap cannot run: {e}"
        shutil.rmtree(trials.pop().dir, ignore_errors=True)
    failed = report(trials, args.seed)
    if stopped:
        print(stopped)
    sys.exit(1 if failed or stopped else 0)


if __name__ == "__main__":
    main()
