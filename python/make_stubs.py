"""Writes vesktap.pyi, the type stub of the built vesktap module, from the module itself:

    python3 make_stubs.py OUT.pyi        (with the module importable, e.g. on PYTHONPATH)

Functions, methods and properties take their signatures from pybind11's docstrings, record
fields their types from a record made with no arguments, and the keys and entries a table
type's classes take are typed by its EntryKey and Entry. Every docstring is kept, so an
editor shows the module's own help. Anything this script cannot read stops it (and the
build), rather than leaving a stub that says less than the module."""

import ipaddress
import re
import sys

import vesktap

HEADER = """\
# The type stub of the vesktap module, made from the built module by python/make_stubs.py.
from collections.abc import Iterator, Mapping, Sequence
from ipaddress import IPv4Address, IPv4Network, IPv6Address, IPv6Network
from os import PathLike
from typing import Any, Literal, overload

__version__: str
"""

SIGNATURE = re.compile(r"^(\w*)\((.*)\) -> (.+)$")
# pybind11's names of Python types, as a stub writes them.
TYPES = {"handle": "Any", "object": "Any", "list": "list[Any]", "dict": "dict[str, Any]",
         "tuple": "tuple[Any, ...]", "Iterator": "Iterator[Any]"}
# Parameters the module takes as any object, to check them itself, by what they stand for.
PARAMETERS = {"unit": "int", "version": "int", "root": "str | PathLike[str]"}
# How an address match is also written, by the type its value reads as.
MATCH_FORMS = {ipaddress.IPv4Address: "str | IPv4Address | IPv4Network",
               ipaddress.IPv6Address: "str | IPv6Address | IPv6Network", str: "str"}
SKIPPED = {"__module__", "__doc__", "__dict__", "__weakref__", "_repr"}


def fail(what):
    sys.exit(f"make_stubs.py: {what}; teach make_stubs.py how to write it")


def docstring(text, indent):
    text = (text or "").strip()
    if not text:
        return []
    text = text.replace("\\", "\\\\").replace('"""', '\\"\\"\\"')
    lines = text.splitlines()
    if len(lines) == 1:
        return [f'{indent}"""{text}"""']
    return [f'{indent}"""{lines[0]}'] + [f"{indent}{line}" if line else "" for line in lines[1:]] + \
        [f'{indent}"""']


def split_signature(doc, where):
    """The name, parameters and return type pybind11 puts on a function's first line, and
    the docstring after it."""
    first, _, rest = (doc or "").partition("\n")
    match = SIGNATURE.match(first)
    if not match:
        fail(f"{where} has no signature line")
    params, depth, current = [], 0, ""
    for c in match.group(2):
        depth += c in "[(" or -(c in "])")
        if c == "," and depth == 0:
            params.append(current.strip())
            current = ""
        else:
            current += c
    if current.strip():
        params.append(current.strip())
    return match.group(1), params, match.group(3), rest


def type_name(pybind):
    """A pybind11 type name as the stub writes it."""
    t = pybind.strip()
    t = re.sub(r"\bvesktap\.", "", t)
    t = re.sub(r"\bList\[", "list[", t)
    t = re.sub(r"\bDict\[", "dict[", t)
    t = re.sub(r"\bOptional\[(.*)\]$", r"\1 | None", t)
    return TYPES.get(t, t)


def record_takes(cls):
    """What a field holding a record of class `cls` takes."""
    takes = f"{cls.__name__} | Mapping[str, Any]"
    if "value" in cls._fields and type(cls().value) in MATCH_FORMS:
        takes += " | " + MATCH_FORMS[type(cls().value)]
    return takes


def field_types(value):
    """How a field reads and what it takes, from its value in a record made with no arguments."""
    if hasattr(type(value), "_fields"):
        return type(value).__name__, record_takes(type(value))
    kinds = {int: ("int", "int"),
             ipaddress.IPv4Address: ("IPv4Address", "IPv4Address | str | int"),
             ipaddress.IPv6Address: ("IPv6Address", "IPv6Address | str | bytes | Sequence[int]"),
             str: ("str", "str | bytes | Sequence[int]"),
             tuple: ("tuple[int, ...]", "bytes | Sequence[int]")}
    if type(value) not in kinds:
        fail(f"a field reads as {type(value).__name__}")
    return kinds[type(value)]


def param(text, context):
    """One parameter of a pybind11 signature, typed for the stub."""
    if text in ("*args", "**kwargs"):
        return text + ": Any"
    name, _, rest = text.partition(":")
    annotation, _, default = rest.partition("=")
    name = name.strip()
    typed = type_name(annotation)
    known = {**PARAMETERS, **context}
    if typed == "Any" and name in known:
        typed = known[name] + (" | None" if default.strip() == "None" else "")
    return f"{name}: {typed}" + (" = ..." if default else "")


def function(name, obj, indent, context, is_method):
    _, params, returns, doc = split_signature(obj.__doc__, name)
    params = [param(p, context) for p in params]
    if is_method:
        params[0] = "self"
    lines = [f"{indent}def {name}({', '.join(params)}) -> {type_name(returns)}:"]
    body = docstring(doc, indent + "    ")
    return lines + body if body else [lines[0] + " ..."]


def prop(name, obj, indent):
    _, _, returns, _ = split_signature(obj.fget.__doc__, name)
    lines = [f"{indent}@property", f"{indent}def {name}(self) -> {type_name(returns)}:"]
    body = docstring(obj.__doc__, indent + "    ")
    return lines + body if body else [lines[0], lines[1] + " ..."]


def record_class(cls, indent):
    """A record: made from itself, a dict and keywords; fields read and written by name."""
    inner = indent + "    "
    lines = [f"{indent}class {cls.__name__}:"] + docstring(cls.__doc__, inner)
    lines += [f"{inner}_fields: tuple[str, ...]",
              f"{inner}def __init__(self, record: {record_takes(cls)} | None = ..., /, "
              f"**fields: Any) -> None: ..."]
    made = cls()
    for field in cls._fields:
        reads, takes = field_types(getattr(made, field))
        lines += [f"{inner}@property", f"{inner}def {field}(self) -> {reads}:"]
        lines += docstring(cls.__dict__[field].__doc__, inner + "    ") or [f"{inner}    ..."]
        lines += [f"{inner}@{field}.setter", f"{inner}def {field}(self, value: {takes}) -> None: ..."]
    lines += [f"{inner}def to_dict(self) -> dict[str, Any]:"]
    lines += docstring(split_signature(cls.to_dict.__doc__, "to_dict")[3], inner + "    ")
    lines += [f"{inner}def __eq__(self, other: object) -> bool: ...",
              f"{inner}def __hash__(self) -> int: ...",
              f"{inner}def __copy__(self) -> {cls.__name__}: ...",
              f"{inner}def __deepcopy__(self, memo: Any) -> {cls.__name__}: ..."]
    return lines


def plain_class(cls, indent, context):
    """A class of the module that is not a record: its members in the order they were made;
    a member that is another's alias is written as one."""
    if "EntryKey" in cls.__dict__:
        context = {"key": f"{cls.EntryKey.__name__} | Mapping[str, Any]",
                   "entry": f"{cls.Entry.__name__} | Mapping[str, Any]"}
    inner = indent + "    "
    lines = [f"{indent}class {cls.__name__}:"] + docstring(cls.__doc__, inner)
    named = {}
    for name, member in cls.__dict__.items():
        if name in SKIPPED or type(member).__name__ == "wrapper_descriptor":
            continue  # pybind11's own (__init__ refusing to make an object Python cannot)
        first = named.setdefault(id(member), name)
        if isinstance(member, type):
            if member.__qualname__ == f"{cls.__qualname__}.{name}":
                lines += write_class(member, inner, context)
            else:
                lines.append(f"{inner}{name} = {member.__name__}")
        elif isinstance(member, property):
            lines += prop(name, member, inner)  # an alias of a property is one too
        elif first != name:
            lines.append(f"{inner}{name} = {first}")
        elif name == "__repr__":
            lines.append(f"{inner}def __repr__(self) -> str: ...")
        elif callable(member):
            lines += function(name, member, inner, context, is_method=True)
        else:
            fail(f"{cls.__qualname__}.{name} is a {type(member).__name__}")
    return lines


def write_class(cls, indent, context=None):
    if hasattr(cls, "_fields"):
        return record_class(cls, indent)
    return plain_class(cls, indent, context or {})


def get_intf_overloads(fn):
    """getIntf's result is the interface class of the table type it is given."""
    lines = []
    for table in vesktap.tables():
        lines += ["@overload", f'def getIntf(table: Literal["{table}"]) -> {table}Interface: ...']
    _, _, _, doc = split_signature(fn.__doc__, "getIntf")
    return lines + ["@overload", "def getIntf(table: str) -> Any:"] + docstring(doc, "    ")


def module_lines():
    lines = HEADER.splitlines()
    named = {}
    for name, member in vars(vesktap).items():
        if name.startswith("_"):
            continue
        first = named.setdefault(id(member), name)
        lines.append("")
        if first != name:
            lines.append(f"{name} = {first}")
        elif isinstance(member, type) and issubclass(member, BaseException):
            base = member.__mro__[1].__name__
            lines += [f"class {name}({base}):"] + docstring(member.__doc__, "    ")
        elif isinstance(member, type):
            lines += write_class(member, "")
        elif name == "getIntf":
            lines += get_intf_overloads(member)
        elif callable(member):
            lines += function(name, member, "", {}, is_method=False)
        else:
            fail(f"vesktap.{name} is a {type(member).__name__}")
    return lines


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: make_stubs.py OUT.pyi")
    with open(sys.argv[1], "w") as out:
        out.write("\n".join(module_lines()) + "\n")


if __name__ == "__main__":
    main()
