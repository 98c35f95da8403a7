"""The module as a whole: the project's version, a docstring on every public member,
snake_case aliases of the camelCase names, the container protocol on every class that
iterates, and the type stub built beside the module."""

import ast
import os
import re
import subprocess

import vesktap

from conftest import program_env, vesktap_exe


def module_classes(scope=vesktap, seen=None):
    """Every class the module defines, nested ones included, each once."""
    seen = set() if seen is None else seen
    for member in list(vars(scope).values()):
        if isinstance(member, type) and member.__module__ == "vesktap" and member not in seen:
            seen.add(member)
            yield member
            yield from module_classes(member, seen)


def public_members():
    """(qualified name, member) of every public function, class, method and property; an
    alias only under its first name."""
    seen = set()
    for scope in [vesktap, *module_classes()]:
        for name, member in vars(scope).items():
            if name.startswith("_") or id(member) in seen or not (callable(member) or isinstance(member, property)):
                continue
            seen.add(id(member))
            yield f"{scope.__name__}.{name}", member


def snake_case(name):
    return re.sub(r"(?<=[a-z0-9])(?=[A-Z])", "_", name).lower()


def test_the_version_is_the_projects():
    shown = subprocess.run([vesktap_exe(), "--version"], env=program_env(os.environ.get("VESK_SHM_ROOT", "/dev/shm/vesk")),
                           capture_output=True, text=True, check=True).stdout
    assert shown.split() == ["vesktap", vesktap.__version__]


def test_every_public_member_has_a_docstring():
    def doc(member):
        # pybind11 starts a function's docstring with its signature; that alone documents nothing.
        return re.sub(r"^\w*\(.*\) -> .*\n?", "", member.__doc__ or "").strip()
    missing = [name for name, member in public_members() if not doc(member)]
    assert not missing, "no docstring: " + ", ".join(missing)


def test_camel_case_names_have_snake_case_aliases():
    assert vesktap.get_intf is vesktap.getIntf and vesktap.run_until_idle is vesktap.runUntilIdle
    intf, table = vesktap.DefaultFwdTcamEntryInterface, vesktap.DefaultFwdTcamEntrySwTable
    assert (intf.make_sw_table, intf.table_version) == (intf.makeSwTable, intf.tableVersion)
    assert table.get_table_entries_py is table.getTableEntries_py and table.unit_id is table.unitId
    records = [cls for cls in module_classes() if hasattr(cls, "_fields")]
    for scope in [vesktap, *(cls for cls in module_classes() if cls not in records)]:
        for name, member in list(vars(scope).items()):
            if not name.startswith("_") and not isinstance(member, type):
                assert vars(scope)[snake_case(name)] is member, f"{scope.__name__}.{name}"
    assert not hasattr(vesktap.DefaultFwdTcamEntryEntryKey, "ingress_port")  # fields keep the schema's names


def test_every_class_that_iterates_answers_in_and_len_itself():
    """Without __contains__, `x in obj` walks obj comparing what it yields with x: a key is
    never found among entries. A walk (an iterator) is the exception: `in` consumes it."""
    for cls in module_classes():
        if "__iter__" in vars(cls) and "__next__" not in vars(cls):
            assert {"__contains__", "__len__", "__getitem__"} <= set(vars(cls)), cls.__qualname__


def test_the_stub_beside_the_module_has_every_member_typed():
    directory = os.path.dirname(vesktap.__file__)
    with open(os.path.join(directory, "vesktap.pyi")) as f:
        tree = ast.parse(f.read())

    stubbed, signatures = set(), {}

    def collect(body, prefix):
        for node in body:
            if isinstance(node, (ast.FunctionDef, ast.ClassDef)):
                stubbed.add(prefix + node.name)
                if isinstance(node, ast.ClassDef):
                    collect(node.body, f"{prefix}{node.name}.")
                else:
                    signatures[prefix + node.name] = ast.unparse(node.args) + " -> " + ast.unparse(node.returns)
            elif isinstance(node, (ast.Assign, ast.AnnAssign)):
                targets = node.targets if isinstance(node, ast.Assign) else [node.target]
                stubbed.update(prefix + t.id for t in targets)

    collect(tree.body, "vesktap.")
    assert {f"vesktap.{cls.__qualname__}" for cls in module_classes()} - stubbed == set()
    for scope in [vesktap, *module_classes()]:
        prefix = "vesktap." if scope is vesktap else f"vesktap.{scope.__qualname__}."
        missing = {prefix + name for name in vars(scope) if not name.startswith("_")} - stubbed
        assert missing == set(), scope
    table = "vesktap.DefaultFwdTcamEntrySwTable."
    assert signatures[table + "entryWrite"] == ("self, key: DefaultFwdTcamEntryEntryKey | Mapping[str, Any], "
                                                "entry: DefaultFwdTcamEntryEntry | Mapping[str, Any] -> EntryHandle")
    assert signatures["vesktap.Ip4Match.value"] == "self, value: IPv4Address | str | int -> None"  # the setter
