#!/usr/bin/env python3
"""`vesktap show` and `agent --report-json` as scripts read them: every JSON document
validates against docs/vesktap.schema.json; the text is tables whose rows have a cell per
header; a damaged TCAM is an error in its own place only.
Usage: show_test.py <schema> <vesktap>"""

import json
import os
import shutil
import subprocess
import sys
import tempfile


def check(value, schema, root, where="$"):
    """Raises AssertionError naming the first place where value breaks the schema (the
    keywords the schema file uses: $ref, oneOf, anyOf, type, const, enum, minimum,
    minProperties, required, properties, additionalProperties, items)."""
    if "$ref" in schema:
        target = root
        for part in schema["$ref"].removeprefix("#/").split("/"):
            target = target[part]
        check(value, target, root, where)
    for keyword, want in (("oneOf", 1), ("anyOf", None)):
        if keyword in schema:
            passed = 0
            for option in schema[keyword]:
                try:
                    check(value, option, root, where)
                    passed += 1
                except AssertionError:
                    pass
            assert passed == want if want else passed > 0, f"{where}: {keyword} matched {passed}"
    types = {"object": dict, "array": list, "string": str, "boolean": bool, "null": type(None)}
    if "type" in schema:
        t = schema["type"]
        ok = (isinstance(value, (int, float)) and not isinstance(value, bool)) if t == "number" else \
             (isinstance(value, int) and not isinstance(value, bool)) if t == "integer" else \
             isinstance(value, types[t])
        assert ok, f"{where}: {value!r} is not of type {t}"
    assert "const" not in schema or value == schema["const"], f"{where}: {value!r} != {schema['const']!r}"
    assert "enum" not in schema or value in schema["enum"], f"{where}: {value!r} not in {schema['enum']}"
    assert "minimum" not in schema or value >= schema["minimum"], f"{where}: {value!r} < minimum"
    if isinstance(value, dict):
        assert len(value) >= schema.get("minProperties", 0), f"{where}: too few members"
        for name in schema.get("required", []):
            assert name in value, f"{where}: no {name}"
        for name, member in value.items():
            if name in schema.get("properties", {}):
                check(member, schema["properties"][name], root, f"{where}.{name}")
            elif schema.get("additionalProperties") is False:
                raise AssertionError(f"{where}: unexpected member {name}")
            elif isinstance(schema.get("additionalProperties"), dict):
                check(member, schema["additionalProperties"], root, f"{where}.{name}")
    if isinstance(value, list) and "items" in schema:
        for i, item in enumerate(value):
            check(item, schema["items"], root, f"{where}[{i}]")


def breaks(value, schema):
    try:
        check(value, schema, schema)
    except AssertionError:
        return True
    return False


def main(schema_path, vesktap):
    with open(schema_path) as f:
        schema = json.load(f)
    root = tempfile.mkdtemp(prefix="vesk-show-", dir="/dev/shm")
    env = dict(os.environ, VESK_SHM_ROOT=root)
    env.pop("LD_PRELOAD", None)

    def run(*args, code=0):
        r = subprocess.run([vesktap, *args], env=env, capture_output=True, text=True, timeout=120)
        assert r.returncode == code, f"vesktap {' '.join(args)} exited {r.returncode}, not {code}:\n{r.stderr}"
        return r

    try:
        # Two table types on units 0 and 1; a hardware side takes them; the second type's
        # unit 1 then gets changes the hardware side has not taken.
        report = json.loads(run("agent", "--units", "0", "1", "--keys", "50", "--changes", "400",
                                "--tables", "DefaultFwdTcamEntry", "ServicePolicyV6TcamAction",
                                "--no-wait", "--progress-ms", "0", "--report-json", "-").stdout)
        check(report, schema, schema)
        assert sum(b["count"] for b in report["confirmationLatencyUs"]) == report["confirmed"]
        run("hw", "--exit-when-idle", "300")
        shown = json.loads(run("show", "--json", "--entries").stdout)
        check(shown, schema, schema)
        assert [t["table"] for t in report["tables"]] == [t["table"] for t in shown["tables"]]
        table = next(t for t in shown["tables"] if t["table"] == "DefaultFwdTcamEntry")
        assert table["hardwareLag"] == 0 and table["changeLog"]["level"] == "ok"
        keys = [e["key"]["priority"] for e in table["units"][0]["entries"]]
        assert keys == sorted(keys) and keys, "entries in key order, fields by name"
        assert all(e["inHardware"] for e in table["units"][0]["entries"])

        # The schema is strict enough to catch a document that is not one.
        for broken in (dict(shown, schemaVersion=2), {k: v for k, v in shown.items() if k != "root"},
                       dict(report, tables={"DefaultFwdTcamEntry": report["tables"][0]})):
            assert breaks(broken, schema), "a broken document passed"
        entry = table["units"][0]["entries"][0]
        entry["key"] = "DefaultFwdTcamEntryEntryKey(priority=0)"
        assert breaks(shown, schema), "a key as a display string passed"

        # Text: a header, then a row per table (and per unit) with a cell per column.
        text = run("show").stdout
        blocks = [b.splitlines() for b in text.strip().split("\n\n")]
        assert [b[0].split()[:2] for b in blocks] == [["TABLE", "VERSION"], ["TABLE", "UNIT"]], text
        for block in blocks:
            width = len(block[0].split())
            assert all(len(row.split()) == width for row in block), block
        assert len(blocks[0]) == 1 + len(shown["tables"]), text
        assert len(blocks[1]) == 1 + sum(len(t["units"]) for t in shown["tables"]), text
        never = next(r for r in blocks[0] if r.startswith("TapTunnelTerminationTcamEntry "))
        assert never.split()[1:4] == ["0", "0", "empty"], never
        listed = run("show", "--table", "ServicePolicyV6TcamAction", "--unit", "1", "--entries").stdout
        lines = listed.splitlines()
        header = lines[lines.index("ServicePolicyV6TcamAction unit 1") + 1].split()
        assert header[:5] == ["VERSION", "IN_TCAM", "index", "kind", "flags"], header

        # A damaged TCAM: its unit's TCAM columns are errors, told once on stderr; the rest
        # reads as before, and the exit status says something is wrong.
        tcam = os.path.join(root, "local/VeskTapAggHw/DefaultFwdTcamEntry/tcam/0/tcam")
        with open(tcam, "r+b") as f:
            f.write(b"\x5a" * 4096)
        damaged = run("show", "--json", code=1)
        shown = json.loads(damaged.stdout)
        check(shown, schema, schema)
        units = next(t for t in shown["tables"] if t["table"] == "DefaultFwdTcamEntry")["units"]
        assert "error" in units[0]["tcam"] and units[0]["notInHardware"] is None, units[0]
        assert units[1]["tcam"]["lines"] == units[1]["liveEntries"] > 0, units[1]
        assert damaged.stderr.count("\n") == 1 and "DefaultFwdTcamEntry unit 0 TCAM: " in damaged.stderr, \
            damaged.stderr
        rows = [r.split() for r in run("show", code=1).stdout.splitlines() if r.startswith("DefaultFwdTcamEntry ")]
        assert rows[1][1] == "0" and rows[1][6:8] == ["error", "error"], rows
        assert rows[2][1] == "1" and "error" not in rows[2], rows
    finally:
        shutil.rmtree(root, ignore_errors=True)
    print("show: ok")


if __name__ == "__main__":
    main(*sys.argv[1:])
