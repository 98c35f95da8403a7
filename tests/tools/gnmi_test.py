#!/usr/bin/env python3
"""vesktap-gnmi as a collector meets it: a real target process and a real gRPC client
(python3-grpcio, stubs generated from the project's gnmi.proto) over a real root written
by a real agent and hardware side. Capabilities names the schema and the encodings; Set is
not served; plaintext only when asked for; TLS and mutual TLS refuse what they must;
SIGTERM stops it with 143. Get, ONCE, POLL and STREAM read what `vesktap show` reads; a
stream sees every change in version order through an agent's kill and restart; a
collector resumes from a version across a restart of the target; a stalled collector is
cut off without slowing another.
Usage: gnmi_test.py <vesktap-gnmi> <directory of the generated Python stubs> <vesktap>"""

import contextlib
import json
import os
import queue
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

TARGET, STUBS, VESKTAP = sys.argv[1], sys.argv[2], sys.argv[3]
sys.path.insert(0, STUBS)

import grpc  # noqa: E402
import gnmi_pb2  # noqa: E402
import gnmi_pb2_grpc  # noqa: E402


class Target:
    """A running vesktap-gnmi on a free port of localhost; stopped with SIGTERM on exit."""

    def __init__(self, *args, env=None):
        self.process = subprocess.Popen([TARGET, "--listen", "localhost:0", *args],
                                        stderr=subprocess.PIPE, text=True, env=env)
        line = self.process.stderr.readline()
        found = re.search(r"\(port (\d+), ([a-z ]+|TLS|mutual TLS)\)", line)
        assert found, f"no listening line from the target: {line!r}"
        self.port = int(found.group(1))
        self.security = found.group(2)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        died = self.process.poll()
        if died is None:
            self.process.send_signal(signal.SIGTERM)
        self.status = self.process.wait(timeout=10)
        said = self.process.stderr.read()
        self.process.stderr.close()
        assert died is None and self.status == 128 + signal.SIGTERM, \
            f"the target ended with {self.status}: {said}"


def call(channel, method, request):
    return getattr(gnmi_pb2_grpc.gNMIStub(channel), method)(request, timeout=5)


def test_capabilities_and_set_in_plaintext():
    with Target("--insecure") as target:
        assert target.security == "plaintext"
        with grpc.insecure_channel(f"localhost:{target.port}") as channel:
            answer = call(channel, "Capabilities", gnmi_pb2.CapabilityRequest())
            assert answer.gNMI_version == "0.10.0"
            assert [(m.name, m.version) for m in answer.supported_models] == [("vesktap-tables", "1")]
            assert set(answer.supported_encodings) == {gnmi_pb2.JSON, gnmi_pb2.JSON_IETF,
                                                       gnmi_pb2.PROTO}
            # Set is not in the target's service: gRPC itself answers UNIMPLEMENTED.
            set_call = channel.unary_unary("/gnmi.gNMI/Set", request_serializer=lambda b: b,
                                           response_deserializer=lambda b: b)
            try:
                set_call(b"", timeout=5)
                raise AssertionError("Set was served")
            except grpc.RpcError as error:
                assert error.code() == grpc.StatusCode.UNIMPLEMENTED, error


def refused(*args):
    """The target's exit status and its one line on stderr, for options it must refuse."""
    done = subprocess.run([TARGET, *args], capture_output=True, text=True, timeout=10)
    lines = done.stderr.strip().splitlines()
    assert len(lines) == 1, f"expected one line, got {lines}"
    return done.returncode, lines[0]


def test_plaintext_only_when_asked_for():
    status, line = refused()
    assert status == 2 and "--tls-cert" in line and "--insecure" in line, line
    status, line = refused("--insecure", "--tls-cert", "x.pem")
    assert status == 2 and "leave out" in line, line
    status, line = refused("--tls-cert", "/nonexistent.pem", "--tls-key", "/nonexistent.key")
    assert status == 2 and "/nonexistent" in line, line


def openssl(*args, cwd):
    subprocess.run(["openssl", *args], cwd=cwd, check=True, capture_output=True)


def certificates(directory):
    """A CA, a target certificate for localhost and a client certificate, both signed by the
    CA, and a client certificate signed by nobody the target trusts."""
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=test CA",
            "-keyout", "ca.key", "-out", "ca.pem", cwd=directory)
    for name in ("target", "client"):
        openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={name}",
                "-keyout", f"{name}.key", "-out", f"{name}.csr", cwd=directory)
        with open(os.path.join(directory, f"{name}.ext"), "w") as ext:
            ext.write("subjectAltName=DNS:localhost\n")
        openssl("x509", "-req", "-in", f"{name}.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
                "-CAcreateserial", "-days", "2", "-extfile", f"{name}.ext", "-out", f"{name}.pem",
                cwd=directory)
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=stranger",
            "-keyout", "stranger.key", "-out", "stranger.pem", cwd=directory)
    return lambda name: open(os.path.join(directory, name), "rb").read()


def capabilities_over(port, credentials):
    with grpc.secure_channel(f"localhost:{port}", credentials) as channel:
        return call(channel, "Capabilities", gnmi_pb2.CapabilityRequest())


def unavailable(port, credentials):
    try:
        capabilities_over(port, credentials)
    except grpc.RpcError as error:
        return error.code() == grpc.StatusCode.UNAVAILABLE
    return False


def test_tls_and_mutual_tls():
    with tempfile.TemporaryDirectory() as directory:
        pem = certificates(directory)
        path = lambda name: os.path.join(directory, name)  # noqa: E731
        tls = ["--tls-cert", path("target.pem"), "--tls-key", path("target.key")]
        with Target(*tls) as target:
            assert target.security == "TLS"
            trusted = grpc.ssl_channel_credentials(root_certificates=pem("ca.pem"))
            assert capabilities_over(target.port, trusted).gNMI_version == "0.10.0"
            with grpc.insecure_channel(f"localhost:{target.port}") as channel:
                try:
                    call(channel, "Capabilities", gnmi_pb2.CapabilityRequest())
                    raise AssertionError("a plaintext client was served by a TLS target")
                except grpc.RpcError as error:
                    assert error.code() == grpc.StatusCode.UNAVAILABLE, error
        with Target(*tls, "--tls-client-ca", path("ca.pem")) as target:
            assert target.security == "mutual TLS"
            assert unavailable(target.port, grpc.ssl_channel_credentials(pem("ca.pem"))), \
                "a client without a certificate was served"
            assert unavailable(target.port, grpc.ssl_channel_credentials(
                pem("ca.pem"), pem("stranger.key"), pem("stranger.pem"))), \
                "a client whose certificate the target does not trust was served"
            signed = grpc.ssl_channel_credentials(pem("ca.pem"), pem("client.key"), pem("client.pem"))
            assert capabilities_over(target.port, signed).gNMI_version == "0.10.0"


class Root:
    """A shared-memory root of its own, with the agent and hardware side run in it."""

    TABLE = "DefaultFwdTcamEntry"

    def __init__(self):
        self.path = tempfile.mkdtemp(prefix="vesk-gnmi-", dir="/dev/shm")
        self.env = dict(os.environ, VESK_SHM_ROOT=self.path, VESK_LOG_STDERR="0")
        self.hw = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop_hw()
        shutil.rmtree(self.path, ignore_errors=True)

    def vesktap(self, *args):
        done = subprocess.run([VESKTAP, *args], env=self.env, capture_output=True, text=True,
                              timeout=120)
        assert done.returncode == 0, f"vesktap {args}: {done.returncode} {done.stderr}"
        return done.stdout

    def agent(self, *args, changes=2000, background=False):
        argv = [VESKTAP, "agent", "--units", "0", "1", "--keys", "300", "--changes", str(changes),
                "--tables", self.TABLE, "--progress-ms", "0", *args]
        if background:
            return subprocess.Popen(argv, env=self.env, stdout=subprocess.DEVNULL,
                                    stderr=subprocess.DEVNULL)
        return self.vesktap(*argv[1:])

    def start_hw(self):
        self.hw = subprocess.Popen([VESKTAP, "hw", "--progress-ms", "0"], env=self.env,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def stop_hw(self):
        if self.hw and self.hw.poll() is None:
            self.hw.kill()
            self.hw.wait()

    def shown_entries(self):
        """{(unit, priority): version} as `vesktap show --json --entries` reads them."""
        shown = json.loads(self.vesktap("show", "--json", "--entries", "--table", self.TABLE))
        return {(u["unit"], e["key"]["priority"]): e["version"]
                for t in shown["tables"] for u in t["units"] for e in u.get("entries", [])}


def path_of(text):
    """A gNMI path from "/a/b[k=v][k2=v2]/c"."""
    p = gnmi_pb2.Path()
    for part in filter(None, re.findall(r"[^/\[]+(?:\[[^\]]*\])*", text)):
        e = p.elem.add()
        e.name = part.split("[", 1)[0]
        for key, value in re.findall(r"\[([^=\]]+)=([^\]]*)\]", part):
            e.key[key] = value
    return p


def leaves(notification):
    """{leaf name: value} of a PROTO notification."""
    return {u.path.elem[-1].name: getattr(u.val, u.val.WhichOneof("value"))
            for u in notification.update}


def entry_id(path):
    """(unit, priority) of an entry's path."""
    unit = next(e.key["id"] for e in path.elem if e.name == "unit")
    entry = next(e for e in path.elem if e.name == "entry")
    return int(unit), int(entry.key["priority"])


def get(stub, text, encoding=gnmi_pb2.PROTO):
    return stub.Get(gnmi_pb2.GetRequest(path=[path_of(text)], encoding=encoding), timeout=10)


def refusal(function):
    try:
        function()
    except grpc.RpcError as error:
        return error.code(), error.details()
    raise AssertionError("served what it should refuse")


def committed(stub):
    state = get(stub, f"/tables/table[name={Root.TABLE}]/state").notification[0]
    return leaves(state)["committedVersion"]


def test_get_once_and_poll_read_what_show_reads():
    with Root() as root, Target("--insecure", env=root.env) as target, \
            grpc.insecure_channel(f"localhost:{target.port}") as channel:
        stub = gnmi_pb2_grpc.gNMIStub(channel)
        agent = leaves(get(stub, "/agent/state").notification[0])
        assert agent["status"] == "absent", agent
        root.start_hw()
        root.agent()
        shown = root.shown_entries()
        # A second start restores what the first left: the agent's state says how much.
        root.agent(changes=0)
        agent = leaves(get(stub, "/agent/state").notification[0])
        assert agent["restoredEntries"] == len(shown) and agent["restoreMs"] > 0, agent
        entries = get(stub, f"/tables/table[name={Root.TABLE}]/units/unit[id=*]/entries/entry[*]")
        assert {entry_id(n.prefix): leaves(n)["version"] for n in entries.notification} == shown
        assert all(leaves(n)["inHardware"] for n in entries.notification)
        # One entry by its whole key, as its path names it; and one leaf of it in JSON_IETF.
        one = entries.notification[0].prefix
        keyed = "/".join(f"{e.name}" + "".join(f"[{k}={v}]" for k, v in e.key.items())
                         for e in one.elem)
        got = get(stub, "/" + keyed)
        assert len(got.notification) == 1 and got.notification[0].prefix == one
        version = get(stub, "/" + keyed + "/version", gnmi_pb2.JSON_IETF).notification[0]
        assert json.loads(version.update[0].val.json_ietf_val) == shown[entry_id(one)]
        # Wildcards on the table and on key fields.
        at_priority = get(stub, "/tables/table[name=*]/units/unit[id=1]/entries/entry[priority=7]")
        assert [entry_id(n.prefix) for n in at_priority.notification] == \
            ([(1, 7)] if (1, 7) in shown else [])
        unit_state = leaves(get(stub, f"/tables/table[name={Root.TABLE}]/units/unit[id=0]/state")
                            .notification[0])
        assert unit_state["entries"] == sum(1 for u, _ in shown if u == 0)
        assert (unit_state["warningPercent"], unit_state["criticalPercent"]) == (70, 85)
        # Refusals name the valid choices.
        code, why = refusal(lambda: get(stub, "/tables/table[name=Nope]"))
        assert code == grpc.StatusCode.INVALID_ARGUMENT and Root.TABLE in why, why
        code, why = refusal(lambda: get(
            stub, f"/tables/table[name={Root.TABLE}]/units/unit[id=0]/entries/entry[colour=red]"))
        assert code == grpc.StatusCode.INVALID_ARGUMENT and "priority" in why, why
        code, why = refusal(lambda: get(stub, "/tables/table[name=*]/units/unit[id=70000]"))
        assert code == grpc.StatusCode.INVALID_ARGUMENT and "65535" in why, why
        code, why = refusal(lambda: get(stub, f"/tables/table[name={Root.TABLE}]/units/unit[id=9]"))
        assert code == grpc.StatusCode.NOT_FOUND, why
        code, why = refusal(lambda: get(stub, "/agent", gnmi_pb2.ASCII))
        assert code == grpc.StatusCode.UNIMPLEMENTED and "JSON_IETF" in why, why
        # ONCE: every value, sync_response, end. POLL: the same at each poll.
        subscription = gnmi_pb2.SubscriptionList(
            mode=gnmi_pb2.SubscriptionList.ONCE, encoding=gnmi_pb2.PROTO,
            subscription=[gnmi_pb2.Subscription(path=path_of(
                f"/tables/table[name={Root.TABLE}]/units/unit[id=0]/entries"))])
        once = list(stub.Subscribe(iter([gnmi_pb2.SubscribeRequest(subscribe=subscription)]),
                                   timeout=10))
        assert once[-1].sync_response and len(once) - 1 == sum(1 for u, _ in shown if u == 0)
        subscription.mode = gnmi_pb2.SubscriptionList.POLL
        polls = queue.Queue()
        polls.put(gnmi_pb2.SubscribeRequest(subscribe=subscription))
        answers = stub.Subscribe(iter(polls.get, None), timeout=10)
        for _ in range(2):
            got = []
            for response in answers:
                if response.sync_response:
                    break
                got.append(entry_id(response.update.prefix))
            assert sorted(got) == sorted(k for k in shown if k[0] == 0)
            polls.put(gnmi_pb2.SubscribeRequest(poll=gnmi_pb2.Poll()))
        polls.put(None)
        answers.cancel()


def test_subscribe_refusals_and_the_streams_allowed():
    def subscribe(stub, *requests):
        return list(stub.Subscribe(iter(requests), timeout=10))

    def listing(path, list_mode, **fields):
        return gnmi_pb2.SubscribeRequest(subscribe=gnmi_pb2.SubscriptionList(
            mode=list_mode, encoding=gnmi_pb2.PROTO,
            subscription=[gnmi_pb2.Subscription(path=path_of(path), **fields)]))

    with Root() as root, Target("--insecure", "--max-streams", "2", env=root.env) as target, \
            grpc.insecure_channel(f"localhost:{target.port}") as channel:
        stub = gnmi_pb2_grpc.gNMIStub(channel)
        root.start_hw()
        root.agent(changes=100)
        table = f"/tables/table[name={Root.TABLE}]"
        code, why = refusal(lambda: subscribe(stub, gnmi_pb2.SubscribeRequest(poll=gnmi_pb2.Poll())))
        assert code == grpc.StatusCode.INVALID_ARGUMENT and "not a poll" in why, why
        code, why = refusal(lambda: subscribe(stub, listing(
            table, gnmi_pb2.SubscriptionList.STREAM, mode=gnmi_pb2.SAMPLE, sample_interval=1000)))
        assert code == grpc.StatusCode.INVALID_ARGUMENT and "sample_interval" in why, why
        code, why = refusal(lambda: subscribe(stub, listing(
            "/tables/table[name=Nope]", gnmi_pb2.SubscriptionList.ONCE)))
        assert code == grpc.StatusCode.INVALID_ARGUMENT and Root.TABLE in why, why
        # A POLL takes polls after its list, nothing else; its answers come first.
        code, why = refusal(lambda: subscribe(
            stub, listing(table, gnmi_pb2.SubscriptionList.POLL),
            listing(table, gnmi_pb2.SubscriptionList.POLL)))
        assert code == grpc.StatusCode.INVALID_ARGUMENT and "only poll requests" in why, why
        # Two streams are all it takes; a third is refused until one leaves.
        first, second = (Collector(stub, table + "/state") for _ in range(2))
        for c in (first, second):
            while not (response := c.responses.get(timeout=10)).sync_response:
                assert response is not None, c.error
        code, why = refusal(lambda: subscribe(stub, listing(table, gnmi_pb2.SubscriptionList.ONCE)))
        assert code == grpc.StatusCode.RESOURCE_EXHAUSTED and "--max-streams" in why, why
        first.close()
        deadline = time.monotonic() + 10
        while True:
            try:
                once = subscribe(stub, listing(table + "/state", gnmi_pb2.SubscriptionList.ONCE))
                break
            except grpc.RpcError as error:
                assert error.code() == grpc.StatusCode.RESOURCE_EXHAUSTED, error
                assert time.monotonic() < deadline, "the stream that left still counts"
                time.sleep(0.05)
        assert once[-1].sync_response and len(once) == 2, once
        second.close()


class Collector:
    """A STREAM subscription read on its own thread: responses in arrival order."""

    def __init__(self, stub, text, updates_only=False):
        request = gnmi_pb2.SubscribeRequest(subscribe=gnmi_pb2.SubscriptionList(
            mode=gnmi_pb2.SubscriptionList.STREAM, encoding=gnmi_pb2.PROTO,
            updates_only=updates_only,
            subscription=[gnmi_pb2.Subscription(path=path_of(text),
                                                mode=gnmi_pb2.ON_CHANGE)]))
        self.requests = queue.Queue()
        self.requests.put(request)
        self.call = stub.Subscribe(iter(self.requests.get, None))
        self.responses = queue.Queue()
        self.error = None
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()

    def _read(self):
        try:
            for response in self.call:
                self.responses.put(response)
        except grpc.RpcError as error:
            self.error = error
        self.responses.put(None)

    def close(self):
        self.call.cancel()
        self.requests.put(None)
        self.thread.join(10)


class Mirror:
    """What a collector builds from a stream: {(unit, priority): version}, the newest
    version seen, and every change in arrival order as (version, entry, written)."""

    def __init__(self):
        self.entries, self.changes, self.newest, self.resyncs, self.synced = {}, [], 0, [], False
        self.resyncing = False

    @property
    def versions(self):
        return [version for version, _, _ in self.changes]

    def apply(self, response):
        if response.sync_response:
            self.synced = True
            return
        n = response.update
        named = leaves(n)
        # A resync: a notice, the table anew (not changes: in key order), an empty notice.
        if "resync" in named:
            self.resyncing = bool(named["resync"])
            if self.resyncing:
                self.resyncs.append(named["resync"])
        version = named.get("version", named.get("committedVersion"))
        changed = None
        for deleted in n.delete:
            if deleted.elem[-1].name == "units":
                self.entries.clear()
            elif deleted.elem[-1].name == "entries":
                unit = entry_id_unit(deleted)
                self.entries = {k: v for k, v in self.entries.items() if k[0] != unit}
                changed = (("unit", unit), False)
            else:
                changed = (entry_id(deleted), False)
                self.entries.pop(entry_id(deleted), None)
        if n.prefix.elem and n.prefix.elem[-1].name == "entry":
            self.entries[entry_id(n.prefix)] = version
            changed = (entry_id(n.prefix), True)
        if changed and self.synced and not self.resyncing:
            self.changes.append((version, *changed))
        if version is not None:
            self.newest = max(self.newest, version)

    def follow(self, collector, until, timeout=30):
        deadline = time.monotonic() + timeout
        while not until(self):
            left = deadline - time.monotonic()
            assert left > 0, f"stream stalled at version {self.newest}"
            try:
                response = collector.responses.get(timeout=left)
            except queue.Empty:
                continue
            assert response is not None, f"stream ended: {collector.error}"
            self.apply(response)


def entry_id_unit(path):
    return int(next(e.key["id"] for e in path.elem if e.name == "unit"))


def assert_in_order(changes):
    """Versions never go back and no change comes twice. A write carries its entry's
    version, unique; a delete the table's committed version, which several may share."""
    versions = [version for version, _, _ in changes]
    assert versions == sorted(versions), "changes out of order"
    assert len(set(changes)) == len(changes), "a change repeated"
    writes = [version for version, _, written in changes if written]
    assert len(set(writes)) == len(writes), "a version written twice"


@contextlib.contextmanager
def followed_root():
    """A root with a hardware side and 500 changes, a target, and a stream of every entry of
    the table, synced: (root, stub, collector, mirror)."""
    with Root() as root, Target("--insecure", env=root.env) as target, \
            grpc.insecure_channel(f"localhost:{target.port}") as channel:
        stub = gnmi_pb2_grpc.gNMIStub(channel)
        root.start_hw()
        root.agent(changes=500)
        collector = Collector(stub, f"/tables/table[name={Root.TABLE}]/units/unit[id=*]/entries")
        mirror = Mirror()
        mirror.follow(collector, lambda m: m.synced)
        yield root, stub, collector, mirror


def follow_to(mirror, collector, shown, until=lambda m: True):
    """Follows the stream until the mirror holds what `show` showed, then closes it."""
    try:
        mirror.follow(collector, lambda m: until(m) and m.entries == shown)
    finally:
        collector.close()
        assert mirror.entries == shown, (
            {k: (v, shown.get(k)) for k, v in mirror.entries.items() if shown.get(k) != v},
            {k: v for k, v in shown.items() if k not in mirror.entries}, mirror.resyncs)


def test_a_stream_sees_every_change_through_an_agent_restart():
    with followed_root() as (root, stub, collector, mirror):
        start = committed(stub)
        # The agent killed mid-workload, then started again on the same root.
        agent = root.agent("--seed", "2", changes=20000, background=True)
        time.sleep(0.3)
        agent.kill()
        agent.wait()
        root.agent("--seed", "3", changes=2000)
        end = committed(stub)
        follow_to(mirror, collector, root.shown_entries(), lambda m: m.newest >= end)
        # Changes the hardware side took and the agent cleaned up before the target read
        # them come from the configurations, still as changes: never a resync.
        assert_in_order(mirror.changes)
        assert not mirror.resyncs, mirror.resyncs
        assert mirror.versions[0] > start and mirror.newest == end


def test_a_collector_resumes_from_a_version_across_a_target_restart():
    with Root() as root:
        root.start_hw()
        root.agent(changes=300)
        with Target("--insecure", env=root.env) as target, \
                grpc.insecure_channel(f"localhost:{target.port}") as channel:
            stub = gnmi_pb2_grpc.gNMIStub(channel)
            seen = committed(stub)
        # While the target is down the hardware side is stopped, so the change log keeps
        # what the agent commits; the new target serves it from there.
        os.kill(root.hw.pid, signal.SIGSTOP)
        root.agent("--seed", "4", "--no-wait", changes=400)
        with Target("--insecure", env=root.env) as target, \
                grpc.insecure_channel(f"localhost:{target.port}") as channel:
            stub = gnmi_pb2_grpc.gNMIStub(channel)
            end = committed(stub)
            assert end > seen
            collector = Collector(stub, f"/tables/table[name={Root.TABLE}][since={seen}]")
            mirror = Mirror()
            mirror.synced = True
            mirror.follow(collector, lambda m: m.newest >= end)
            os.kill(root.hw.pid, signal.SIGCONT)
            # Resumed from the same target, after the hardware side took everything: what
            # it kept.
            collector.close()
            assert not mirror.resyncs, mirror.resyncs
            assert_in_order(mirror.changes)
            assert mirror.versions[0] == seen + 1 or mirror.versions[0] > seen
            again = Collector(stub, f"/tables/table[name={Root.TABLE}][since={seen}]")
            second = Mirror()
            second.synced = True
            second.follow(again, lambda m: m.newest >= end)
            again.close()
            assert second.changes == mirror.changes
            # A version before anything the target or the log holds: said, then resent.
            root.agent("--seed", "5", changes=100)
            old = Collector(stub, f"/tables/table[name={Root.TABLE}][since=1]")
            third = Mirror()
            third.synced = True
            third.follow(old, lambda m: m.resyncs and not m.resyncing)
            old.close()
            assert "no longer holds version 2" in third.resyncs[0], third.resyncs
            assert third.entries == root.shown_entries()


def test_a_stalled_collector_does_not_slow_another():
    # Its channel keeps gRPC's first window (64 KiB): no probing of the bandwidth grows it,
    # so that what the collector does not read soon stops the target's writes.
    with Root() as root, Target("--insecure", "--queue-limit", "1000", env=root.env) as target, \
            grpc.insecure_channel(f"localhost:{target.port}",
                                  options=[("grpc.http2.bdp_probe", 0)]) as channel:
        stub = gnmi_pb2_grpc.gNMIStub(channel)
        root.start_hw()
        root.agent(changes=100)
        # The stalled one asks for every entry every 100 ms and never reads: gRPC's windows
        # fill, then its queue. The other follows one key of both units.
        stalled = stub.Subscribe(iter([gnmi_pb2.SubscribeRequest(
            subscribe=gnmi_pb2.SubscriptionList(
                mode=gnmi_pb2.SubscriptionList.STREAM, encoding=gnmi_pb2.JSON_IETF,
                subscription=[gnmi_pb2.Subscription(
                    path=path_of(f"/tables/table[name={Root.TABLE}]/units/unit[id=*]/entries"),
                    mode=gnmi_pb2.SAMPLE, sample_interval=100_000_000)]))]),
            timeout=60)
        collector = Collector(stub, f"/tables/table[name={Root.TABLE}]/units/unit[id=*]"
                              "/entries/entry[priority=7]")
        mirror = Mirror()
        mirror.follow(collector, lambda m: m.synced)
        root.agent("--seed", "6", changes=30000)
        shown = {k: v for k, v in root.shown_entries().items() if k[1] == 7}
        mirror.follow(collector, lambda m: m.entries == shown and not m.resyncing)
        collector.close()
        assert_in_order(mirror.changes)
        # The stalled one is ended by the target (RESOURCE_EXHAUSTED once its queue overflows,
        # or cancelled when its RPC is stuck in a write), or is still buffered by the client.
        stalled.cancel()


def test_a_stream_follows_remove_alls():
    with followed_root() as (root, stub, collector, mirror):
        root.agent("--seed", "8", "--remove-all-every", "300", changes=20000)
        follow_to(mirror, collector, root.shown_entries())
        assert_in_order(mirror.changes)
        # A remove-all the log no longer holds, whose entries' tombstones went too, is the
        # one thing sent as a resync.
        assert all("remove-all" in why for why in mirror.resyncs), mirror.resyncs


# A collector in a process of its own, so that it can be stopped: it subscribes with the
# request given (hex), prints each response (hex) and at the end "end CODE details".
STOPPABLE_COLLECTOR = """
import sys
sys.path.insert(0, sys.argv[1])
import grpc, gnmi_pb2, gnmi_pb2_grpc
request = gnmi_pb2.SubscribeRequest.FromString(bytes.fromhex(sys.argv[3]))
try:
    # gRPC's window stays at its first 64 KiB (no BDP probes to grow it): a stopped
    # collector then holds back the target's writes after a few hundred changes, however
    # fast the target is.
    with grpc.insecure_channel(sys.argv[2], options=[("grpc.http2.bdp_probe", 0)]) as channel:
        for r in gnmi_pb2_grpc.gNMIStub(channel).Subscribe(iter([request]), timeout=120):
            print(r.SerializeToString().hex(), flush=True)
    print("end OK", flush=True)
except grpc.RpcError as e:
    print(f"end {e.code().name} {e.details()}", flush=True)
"""


def test_a_slow_collector_is_closed_with_where_to_resume():
    with Root() as root, Target("--insecure", "--queue-limit", "100", env=root.env) as target, \
            grpc.insecure_channel(f"localhost:{target.port}") as channel:
        stub = gnmi_pb2_grpc.gNMIStub(channel)
        root.start_hw()
        root.agent(changes=100)
        request = gnmi_pb2.SubscribeRequest(subscribe=gnmi_pb2.SubscriptionList(
            mode=gnmi_pb2.SubscriptionList.STREAM, encoding=gnmi_pb2.PROTO,
            subscription=[gnmi_pb2.Subscription(
                path=path_of(f"/tables/table[name={Root.TABLE}]/units/unit[id=*]/entries"),
                mode=gnmi_pb2.ON_CHANGE)]))
        collector = subprocess.Popen(
            [sys.executable, "-c", STOPPABLE_COLLECTOR, STUBS, f"localhost:{target.port}",
             request.SerializeToString().hex()], stdout=subprocess.PIPE, text=True)
        lines = queue.Queue()
        threading.Thread(target=lambda: [lines.put(line) for line in collector.stdout],
                         daemon=True).start()
        mirror = Mirror()
        end = None

        def read_until(done):
            nonlocal end
            while not done():
                line = lines.get(timeout=60).strip()
                if line.startswith("end "):
                    end = line
                    return
                mirror.apply(gnmi_pb2.SubscribeResponse.FromString(bytes.fromhex(line)))

        try:
            # Synced first, so that the next changes come live (not in the initial values).
            read_until(lambda: mirror.synced)
            root.agent("--seed", "6", changes=50)
            first = committed(stub)
            read_until(lambda: mirror.newest >= first)
            # The collector stopped (it reads nothing, nor lets gRPC's window open) while
            # thousands of entries are written: the window fills, then the stream's 100
            # places. The hardware side is stopped too, so that the log keeps every change
            # and the target sends each. Then the collector goes on, and is told.
            os.kill(collector.pid, signal.SIGSTOP)
            os.kill(root.hw.pid, signal.SIGSTOP)
            try:
                root.vesktap("agent", "--units", "0", "1", "--keys", "3000", "--changes",
                             "12000", "--tables", Root.TABLE, "--seed", "7", "--no-wait",
                             "--progress-ms", "0")
            finally:
                os.kill(root.hw.pid, signal.SIGCONT)
                os.kill(collector.pid, signal.SIGCONT)
            read_until(lambda: end is not None)
        finally:
            collector.kill()
            collector.wait()
        assert end.startswith("end RESOURCE_EXHAUSTED "), end
        assert "read too slowly: 100 changes" in end, end
        found = re.search(rf"table\[name={Root.TABLE}\]\[since=(\d+)\]", end)
        assert found, end
        # Resumed where it was told: the rest, with nothing resent and no resync.
        since = int(found.group(1))
        assert since == mirror.newest, (since, mirror.changes[-3:])
        resumed = Collector(stub, f"/tables/table[name={Root.TABLE}][since={since}]")
        follow_to(mirror, resumed, root.shown_entries())
        assert_in_order(mirror.changes)
        assert not mirror.resyncs, mirror.resyncs

if __name__ == "__main__":
    for name, test in list(globals().items()):
        if name.startswith("test_"):
            test()
            print(f"{name}: passed")
