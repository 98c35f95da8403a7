"""The read-only view: what vesktap.open() reads of an agent's shared memory is exactly what
the agent wrote, as `vesktap show` reports it, and reading changes nothing."""

import hashlib
import os
import subprocess

import pytest
import vesktap

from conftest import program_env, run_vesktap, show_json, vesktap_exe

ENTRY_TABLES = [t for t in vesktap.tables() if t.endswith("Entry")]
ACTION_TABLES = [t for t in vesktap.tables() if t.endswith("Action")]


def assert_matches_show(mem, shown):
    assert [t["table"] for t in shown["tables"]] == vesktap.tables()
    for t in shown["tables"]:
        table = t["table"]
        assert mem.changeLog(table) == t["changeLog"], table
        assert mem.tableVersion(table) == (t["changeLog"] or {}).get("tableVersion"), table
        assert mem.hardwareVersion(table) == t["hardwareTaken"], table
        assert mem.units(table) == [u["unit"] for u in t["units"]], table
        for u in t["units"]:
            summary = mem.unitSummary(table, u["unit"])
            assert summary == {k: v for k, v in u.items() if k != "entries"}, table
            # The same entries in the same (key) order; a key named by its first field.
            first = lambda key: next(iter(key.items()))  # noqa: E731
            assert [(getattr(e.key, first(s["key"])[0]), e.version, e.inHardware)
                    for e, s in zip(mem.entries(table, u["unit"]), u["entries"])] == \
                [(first(s["key"])[1], s["version"], s["inHardware"]) for s in u["entries"]], table
            assert len(mem.entries(table, u["unit"])) == len(u["entries"]), table


def assert_fields_are_the_workloads(mem, table, unit):
    """The workload writes key number n as priority n, port 1 + n % 48, VLAN 100 + n % 4000
    and action line n % 1024; action line n counts into counter n: read by name, the
    fields must say so."""
    entries = mem.entries(table, unit)
    assert entries, table
    for e in entries:
        assert e.entry.entryKey == e.key
        if table in ENTRY_TABLES:
            n = e.key.priority
            assert e.key.ingressPort.value == 1 + n % 48 and e.key.ingressPort.mask == 0xFFFFFFFF
            if "vlan" in e.key._fields:
                assert e.key.vlan.to_dict() == {"value": 100 + n % 4000, "mask": 0x0FFF}
            assert e.key.actionIndex == n % 1024
        else:
            assert e.entry.action.counterId == e.key.index
            assert e.entry.action.flags == 1 | 8  # count, vlanPush
            assert e.entry.action.kind in (1, 2)  # redirect, drop


def test_reads_exactly_what_the_agent_wrote(shm_root):
    run_vesktap(shm_root, "agent", "--units", "0", "3", "--keys", "100", "--changes", "1500",
                "--remove-all-every", "700", "--no-wait", "--progress-ms", "0")
    mem = vesktap.open(shm_root)
    assert mem.root == shm_root
    assert_matches_show(mem, show_json(shm_root))
    for table in vesktap.tables():
        assert mem.units(table) == [0, 3]
        assert mem.hardwareVersion(table) is None
        assert mem.tcamEntries(table, 3) is None
        assert_fields_are_the_workloads(mem, table, 3)


def test_reads_the_tcam_the_hardware_side_programmed(shm_root):
    env = program_env(shm_root)
    hw = subprocess.Popen([vesktap_exe(), "hw", "--exit-when-idle", "1500"], env=env,
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    try:
        run_vesktap(shm_root, "agent", "--units", "1", "--keys", "60", "--changes", "400",
                    "--tables", "DefaultFwdTcamEntry", "ServicePolicyV6TcamAction", "--progress-ms", "0")
    finally:
        assert hw.wait(timeout=120) == 0, hw.stderr.read()
    mem = vesktap.open(shm_root)
    assert_matches_show(mem, show_json(shm_root))
    for table in ("DefaultFwdTcamEntry", "ServicePolicyV6TcamAction"):
        version = mem.tableVersion(table)
        assert version and mem.hardwareVersion(table) == version
        assert mem.unitSummary(table, 1)["tcam"]["appliedVersion"] == version
        live = {e.key: e.entry for e in mem.entries(table, 1)}
        lines = mem.tcamEntries(table, 1)
        assert {line.key: line.entry for line in lines} == live
        assert all(e.inHardware for e in mem.entries(table, 1))
        assert max(line.version for line in lines) <= version
        assert_fields_are_the_workloads(mem, table, 1)


def tree_state(root):
    state = {}
    for dirpath, dirnames, filenames in os.walk(root):
        for name in dirnames + filenames:
            path = os.path.join(dirpath, name)
            st = os.lstat(path)
            digest = None
            if os.path.isfile(path):
                with open(path, "rb") as f:
                    digest = hashlib.sha256(f.read()).hexdigest()
            state[os.path.relpath(path, root)] = (st.st_mode, st.st_size, st.st_mtime_ns, digest)
    return state


def test_reading_changes_nothing(shm_root):
    run_vesktap(shm_root, "agent", "--units", "0", "--keys", "20", "--changes", "100", "--no-wait",
                "--progress-ms", "0")
    before = tree_state(shm_root)
    mem = vesktap.open(shm_root)
    for table in mem.tables():
        mem.changeLog(table)
        mem.hardwareVersion(table)
        for unit in mem.units(table):
            mem.entries(table, unit)
            mem.tcamEntries(table, unit)
            mem.unitSummary(table, unit)
    assert tree_state(shm_root) == before


def test_later_changes_are_seen_by_an_open_view(shm_root):
    run_vesktap(shm_root, "agent", "--units", "0", "--keys", "10", "--changes", "10", "--seed", "1",
                "--tables", "TapTunnelTerminationTcamAction", "--no-wait", "--progress-ms", "0")
    mem = vesktap.open(shm_root)
    first = mem.tableVersion("TapTunnelTerminationTcamAction")
    assert mem.units("DefaultFwdTcamAction") == [0]
    run_vesktap(shm_root, "agent", "--units", "0", "5", "--keys", "10", "--changes", "30", "--seed", "2",
                "--tables", "TapTunnelTerminationTcamAction", "--no-wait", "--progress-ms", "0")
    assert mem.tableVersion("TapTunnelTerminationTcamAction") > first
    assert mem.units("TapTunnelTerminationTcamAction") == [0, 5]
    assert_matches_show(mem, show_json(shm_root))


class TestBadInputs:
    def test_a_root_without_an_agent_is_an_error_and_stays_untouched(self, shm_root):
        missing = os.path.join(shm_root, "nothing-here")
        with pytest.raises(vesktap.NoAgentMemoryError, match="no agent's shared memory at .*nothing-here"):
            vesktap.open(missing)
        assert not os.path.exists(missing)
        with pytest.raises(FileNotFoundError):
            vesktap.open(shm_root)
        assert os.listdir(shm_root) == []

    def test_unknown_tables_and_units(self, shm_root):
        run_vesktap(shm_root, "agent", "--units", "2", "--keys", "5", "--changes", "20", "--no-wait",
                    "--progress-ms", "0")
        mem = vesktap.open(shm_root)
        with pytest.raises(vesktap.UnknownTableError, match="unknown table 'NoSuchTable' .*DefaultFwdTcamAction"):
            mem.entries("NoSuchTable", 2)
        with pytest.raises(LookupError):
            mem.units("defaultFwdTcamEntry")
        with pytest.raises(vesktap.UnknownUnitError, match=r"DefaultFwdTcamEntry has no unit 7 \(units: 2\)"):
            mem.entries("DefaultFwdTcamEntry", 7)
        with pytest.raises(vesktap.UnknownUnitError):
            mem.tcamEntries("DefaultFwdTcamEntry", 7)
        with pytest.raises(ValueError, match=r"unit: 65536 is out of range \(0 to 65535\)"):
            mem.unitSummary("DefaultFwdTcamEntry", 65536)
        with pytest.raises(ValueError):
            mem.entries("DefaultFwdTcamEntry", -1)
        with pytest.raises(TypeError, match="unit: expected an int, got str"):
            mem.entries("DefaultFwdTcamEntry", "2")
