"""Tables driven in this process: write, remove, step the group resolver, confirm as the
hardware side, read as a mapping, walk and snapshot. Each test runs in a process of its own
at a root of its own, since the table interfaces live as long as the process that made them."""

import os
import subprocess

import pytest
import vesktap

from conftest import in_fresh_process, program_env, run_in_child, vesktap_exe

TABLE = "DefaultFwdTcamEntry"


def key_of(intf, n):
    """Key number n of any table type: its first field (priority or line index) is n."""
    return intf.EntryKey(**{intf.EntryKey._fields[0]: n})


def entry_of(intf, n, variant=0):
    if "action" in intf.Entry._fields:
        return {"action": {"kind": 1, "redirectPort": 1 + (n + variant) % 48, "flags": 8, "vlanId": 100 + variant}}
    return {}


def fdb_key(n):
    return vesktap.DefaultFwdTcamEntryEntryKey(priority=n, ingressPort={"value": n, "mask": 0xFFFFFFFF},
                                               vlan=vesktap.U16Match(value=10 + n, mask=0xFFF), actionIndex=n % 4)


def fdb_entry(n):
    return vesktap.DefaultFwdTcamEntryEntry(entryKey=fdb_key(n))


@in_fresh_process
def test_write_commit_confirm_read():
    intf = vesktap.getIntf(TABLE)
    assert intf.intfName() == "VeskTapAgg::DefaultFwdTcamEntryInterface"
    table = intf.makeSwTable(0, clear=True)
    assert table.unitId == 0 and table.entrys() == 0
    handles = [table.entryWrite(fdb_key(n), fdb_entry(n)) for n in range(3)]
    assert [h.state for h in handles] == ["created"] * 3
    assert table.entryRead(fdb_key(1)) == fdb_entry(1)  # pending writes read at once
    assert intf.tableVersion() == 0

    assert vesktap.runUntilIdle() == 3
    assert intf.tableVersion() == 3
    assert [h.state for h in handles] == ["inLog"] * 3
    assert [h.logVersion for h in handles] == [1, 2, 3]
    assert table.hasPendingHwWrites()

    table.tableStatusVersion(2)  # the hardware side has taken versions 1 and 2
    assert [h.state for h in handles] == ["done", "done", "inLog"]
    table.tableStatusVersion(3)
    assert handles[2].state == "done" and not table.hasPendingHwWrites()
    assert table.entrys() == 3
    assert table.entryRead(fdb_key(2)).entryKey.vlan.value == 12

    # What was committed is in shared memory, where the read-only view finds it.
    mem = vesktap.open()
    assert mem.tableVersion(TABLE) == 3
    assert {e.key: e.entry for e in mem.entries(TABLE, 0)} == {fdb_key(n): fdb_entry(n) for n in range(3)}


@in_fresh_process
def test_a_table_is_a_mapping_from_key_to_entry():
    intf = vesktap.get_intf(TABLE)  # the snake_case names are the same calls
    table = intf.make_sw_table(3, clear=True)
    for n in range(3):
        table.entry_write(fdb_key(n), fdb_entry(n))
    vesktap.run_until_idle()
    table.entry_remove(fdb_key(1))  # pending removal
    table.entry_write(fdb_key(7), fdb_entry(7))  # pending write
    assert fdb_key(0) in table and fdb_key(7) in table and fdb_key(2).to_dict() in table
    assert fdb_key(1) not in table and fdb_key(5) not in table
    assert len(table) == 3
    assert list(table) == list(table.keys()) == [e.entryKey for e in table.entryIteratorConst()]
    assert list(table.values()) == list(table.entryIteratorConst())
    assert dict(table.items()) == {k: table[k] for k in table} == {fdb_key(n): fdb_entry(n) for n in (0, 2, 7)}
    assert table.get(fdb_key(1)) is None and table.get(fdb_key(1), "absent") == "absent"
    for read in (table.__getitem__, table.entryRead, table.entry_read):
        with pytest.raises(KeyError, match=r"DefaultFwdTcamEntry unit 3 has no entry for "
                                           r"DefaultFwdTcamEntryEntryKey\(priority=1, ingressPort=1/0xffffffff"):
            read(fdb_key(1))
    with pytest.raises(TypeError, match="key: expected a DefaultFwdTcamEntryEntryKey or a dict, got "
                                        "DefaultFwdTcamEntryEntry"):
        fdb_entry(0) in table  # an entry is not its key
    assert intf.table_version() == 3 and table.unit_id == 3


@pytest.mark.parametrize("table_name", vesktap.tables())
def test_every_table_type_takes_the_same_steps(table_name):
    @in_fresh_process
    def body():
        intf = vesktap.getIntf(table_name)
        assert intf.tableName == table_name
        table = intf.makeSwTable(4, clear=True)
        for n in range(5):
            table.entryWrite(key_of(intf, n), entry_of(intf, n))
        table.entryRemove(key_of(intf, 3))
        assert vesktap.runUntilIdle() == 6
        table.tableStatusVersion(intf.tableVersion())
        expected = {key_of(intf, n): intf.Entry(entry_of(intf, n), entryKey=key_of(intf, n)) for n in (0, 1, 2, 4)}
        assert {k: table.entryRead(k) for k in expected} == expected
        assert not table.entryHas(key_of(intf, 3))
        snapshot = table.getTableEntries_py()
        assert dict(snapshot.items()) == expected
        assert {e.key: e.entry for e in vesktap.open().entries(table_name, 4)} == expected
    body()


@in_fresh_process
def test_the_walk_sees_pending_changes_over_committed_ones():
    intf = vesktap.getIntf("ServicePolicyMacTcamAction")
    table = intf.makeSwTable(1, clear=True)
    key = intf.EntryKey
    for n in range(6):
        table.entryWrite(key(index=n), {"action": {"counterId": n}})
    vesktap.runUntilIdle()
    table.tableStatusVersion(intf.tableVersion())
    table.entryWrite(key(index=2), {"action": {"counterId": 200}})  # pending over committed
    table.entryWrite(key(index=9), {"action": {"counterId": 9}})  # pending only
    table.entryRemove(key(index=4))  # pending removal

    walked = [(e.entryKey.index, e.action.counterId) for e in table.entryIteratorConst()]
    assert sorted(walked) == [(0, 0), (1, 1), (2, 200), (3, 3), (5, 5), (9, 9)]
    assert [k.index for k in table] == [i for i, _ in walked]  # iterating a table yields its keys
    assert {i for i, _ in walked[:2]} == {2, 9}  # pending writes first

    assert list(table.entryIteratorConst(key(index=7))) == []  # a key the table lacks: empty walk
    assert next(iter(table.entryIteratorConst({"index": 0}))).entryKey.index == 0  # a key as a dict


@in_fresh_process
def test_the_snapshot_is_a_copy():
    intf = vesktap.getIntf(TABLE)
    table = intf.makeSwTable(2, clear=True)
    for n in range(4):
        table.entryWrite(fdb_key(n), fdb_entry(n))
    vesktap.runUntilIdle()
    table.entryWrite(fdb_key(7), {})  # pending: in the snapshot too
    snapshot = table.getTableEntries_py()
    assert isinstance(snapshot, vesktap.DefaultFwdTcamEntrySwTable.SwTableEntries_py)
    assert len(snapshot) == 5
    assert set(snapshot) == {fdb_key(n) for n in (0, 1, 2, 3, 7)}
    assert snapshot[fdb_key(2)] == fdb_entry(2)
    assert snapshot[fdb_key(2).to_dict()] == fdb_entry(2)  # a key may be given as a dict
    assert fdb_key(3) in snapshot and fdb_key(5) not in snapshot
    assert snapshot.get(fdb_key(5)) is None
    for read in (snapshot.__getitem__, snapshot.tableEntries):
        with pytest.raises(KeyError, match=r"DefaultFwdTcamEntry snapshot has no entry for "
                                           r"DefaultFwdTcamEntryEntryKey\(priority=5,"):
            read(fdb_key(5))

    table.entryRemoveAll()
    table.entryWrite(fdb_key(8), {})
    vesktap.runUntilIdle()
    assert len(snapshot) == 5 and fdb_key(8) not in snapshot and snapshot[fdb_key(0)] == fdb_entry(0)
    assert set(table.getTableEntries_py()) == {fdb_key(8)}

    entry = snapshot[fdb_key(1)]
    entry.entryKey.priority = 99  # a copy: the snapshot keeps its entry
    assert snapshot[fdb_key(1)] == fdb_entry(1)

    # The snapshot is the script's own to change; the table never sees it.
    snapshot.tableEntriesIs(fdb_entry(9))
    assert snapshot[fdb_key(9)] == fdb_entry(9) and len(snapshot) == 6
    assert snapshot.tableEntriesDel(fdb_key(9)) == fdb_entry(9)
    assert snapshot.tableEntriesDel(fdb_key(9)) is None  # absent
    snapshot[fdb_key(5)] = fdb_entry(6)  # stored under the key it is set at
    assert snapshot[fdb_key(5)].entryKey == fdb_key(5)
    del snapshot[fdb_key(5)]
    with pytest.raises(KeyError):
        del snapshot[fdb_key(5)]
    snapshot.tableEntriesDelAll()
    assert len(snapshot) == 0 and set(table.getTableEntries_py()) == {fdb_key(8)}


@in_fresh_process
def test_a_write_whose_entry_names_another_key_is_stored_under_the_key_written():
    table = vesktap.getIntf(TABLE).makeSwTable(0, clear=True)
    table.entryWrite(fdb_key(1), fdb_entry(2))
    vesktap.runUntilIdle()
    assert table.entryHas(fdb_key(1)) and not table.entryHas(fdb_key(2))
    assert table.entryRead(fdb_key(1)).entryKey == fdb_key(1)


class TestBadInputs:
    @in_fresh_process
    def test_table_errors_are_python_exceptions(self):
        with pytest.raises(RuntimeError, match="call getIntf first"):
            vesktap.runUntilIdle()
        with pytest.raises(vesktap.UnknownTableError, match="unknown table 'Nope'"):
            vesktap.getIntf("Nope")
        intf = vesktap.getIntf(TABLE)
        with pytest.raises(ValueError, match=r"unit: 70000 is out of range"):
            intf.makeSwTable(70000)
        table = intf.makeSwTable(0, clear=True)
        with pytest.raises(TypeError, match="key: expected a DefaultFwdTcamEntryEntryKey or a dict, got int"):
            table.entryRead(5)
        with pytest.raises(TypeError, match="key: expected a DefaultFwdTcamEntryEntryKey or a dict, got "
                                            "DefaultFwdTcamActionEntryKey"):
            table.entryHas(vesktap.DefaultFwdTcamActionEntryKey(index=1))
        with pytest.raises(TypeError, match="key.vlan: U16Match has no field 'vlan_id'"):
            table.entryRemove({"vlan": {"vlan_id": 3}})
        with pytest.raises(ValueError, match="version: -1 is out of range"):
            table.tableStatusVersion(-1)
        with pytest.raises(ValueError, match=r"version: 18446744073709551616 is out of range \(0 to 18446744073709551615\)"):
            table.tableStatusVersion(1 << 64)
        assert table.entrys() == 0 and vesktap.runUntilIdle() == 0  # nothing bad got in

    @in_fresh_process
    def test_log_versions_take_the_whole_unsigned_64_bit_range(self):
        intf = vesktap.getIntf(TABLE)
        table = intf.makeSwTable(0, clear=True)
        handles = [table.entryWrite(fdb_key(n), fdb_entry(n)) for n in range(2)]
        assert vesktap.runUntilIdle() == 2
        table.tableStatusVersion(1 << 63)  # past the signed range: every change is taken
        assert [h.state for h in handles] == ["done", "done"]
        table.tableStatusVersion((1 << 64) - 1)
        assert table.entrys() == 2

    def test_a_root_open_read_only_is_refused_for_tables(self, shm_root):
        def body():
            subprocess.run([vesktap_exe(), "agent", "--units", "0", "--keys", "5", "--changes", "5",
                            "--no-wait", "--progress-ms", "0"], check=True, capture_output=True,
                           env=program_env(os.environ["VESK_SHM_ROOT"]))
            vesktap.open()
            with pytest.raises(RuntimeError, match="open read-only in this process"):
                vesktap.getIntf(TABLE)
        run_in_child(body, shm_root)
