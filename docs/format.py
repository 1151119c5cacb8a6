#!/usr/bin/env python3
"""Keeps the tables of format.md in step with include/shkv_format.h.

format.py            writes the tables anew, between the markers of each block
format.py --check CC says what is out of step: a table, a record or constant of the header without one, a
                     byte of a record without a field; and lets the compiler CC vouch for every offset.
"""

import re
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
HEADER = HERE.parent / "include" / "shkv_format.h"
PAGE = HERE / "format.md"
SIZES = {"uint8_t": 1, "char": 1, "uint16_t": 2, "uint32_t": 4, "int32_t": 4, "uint64_t": 8}
SIZES |= {"pthread_mutex_t": 40, "sem_t": 32, "struct timeval": 16}

FIELD = re.compile(r"^    ((?:struct )?\w+) (\w+)(?:\[(\d+)\])?; +/\* *(0x[0-9a-f]+|\d+) *(.*?) *\*/$")
DEFINE = re.compile(r'^#define (\w+) +(\(?-?[0-9][0-9a-fx]*u?\)?|".*?")(?: +/\* (.*?) \*/)?$')


def read_header():
    """Records as name -> [(offset, size, type, field, meaning)], constants as name -> (value, meaning)."""
    records, constants, record = {}, {}, None
    for line in HEADER.read_text().splitlines():
        if m := re.match(r"typedef struct (\w+) \{", line):
            record = records.setdefault(m[1], [])
        elif line.startswith("}"):
            if record and m is None:
                last = record[-1]
                SIZES[line.split()[1].rstrip(";")] = last[0] + last[1]
            record = None
        elif record is not None:
            f = FIELD.match(line)
            assert f, f"no field with its offset: {line}"
            kind, name, count, offset, meaning = f.groups()
            size = SIZES[kind] * int(count or 1)
            record.append((int(offset, 0), size, f"{kind}[{count}]" if count else kind, name, meaning))
        elif d := DEFINE.match(line):
            constants[d[1]] = (d[2].strip("()").removesuffix("u") if d[2][0] != '"' else d[2], d[3] or "")
        elif line.strip().startswith("OBJ_"):
            for name, value in re.findall(r"(\w+) = (\d+)", line):
                constants[name] = (value, "")
    return records, constants


def table(rows, head):
    return "\n".join(["| " + " | ".join(head) + " |", "|" + "---|" * len(head)] + ["| " + " | ".join(r) + " |" for r in rows])


def record_table(fields):
    wide = fields[-1][0] > 255
    rows = []
    for offset, size, kind, name, meaning in fields:
        at = f"0x{offset:03x}" if wide else str(offset)
        meaning = meaning or ("unused, zero" if name.startswith("rsv") else "")
        rows.append((at, str(size), f"`{name}`", kind, meaning.replace("|", "\\|")))
    return table(rows, ("at", "bytes", "field", "type", "meaning"))


def constant_table(constants):
    return table([(f"`{n}`", v, m) for n, (v, m) in constants.items()], ("name", "value", "meaning"))


def fill(page, records, constants):
    """The page with its tables made anew, and the names that they show."""
    shown = set()

    def block(match):
        kind, what = match[1], match[2]
        if kind == "record":
            shown.add(what)
            body = record_table(records[what])
        else:
            some = {n: c for n, c in constants.items() if re.fullmatch(what, n)}
            assert some, f"no constant is called {what}"
            shown.update(some)
            body = constant_table(some)
        return f"<!-- {kind} {what} -->\n{body}\n<!-- end -->"

    return re.sub(r"<!-- (record|constants) (\S+) -->\n.*?<!-- end -->", block, page, flags=re.S), shown


def gaps(records):
    for name, fields in records.items():
        at = 0
        for offset, size, _, field, _ in fields:
            if offset != at:
                yield f"{name}: bytes {at} to {offset} before {field} belong to no field"
            at = offset + size


def assertions(records):
    yield '#include "shkv_format.h"'
    for name, fields in records.items():
        for offset, size, _, field, _ in fields:
            yield f'_Static_assert(offsetof({name}, {field}) == {offset}, "{name}.{field}");'
            yield f'_Static_assert(sizeof((({name} *)0)->{field}) == {size}, "{name}.{field}");'
        yield f'_Static_assert(sizeof({name}) == {fields[-1][0] + fields[-1][1]}, "{name}");'


def main():
    records, constants = read_header()
    page = PAGE.read_text()
    wanted, shown = fill(page, records, constants)
    if sys.argv[1:2] != ["--check"]:
        PAGE.write_text(wanted)
        return 0
    wrong = [f"no table shows {name}" for name in (*records, *constants) if name not in shown]
    wrong += gaps(records)
    if wanted != page:
        wrong.append("a table differs from the header: run docs/format.py")
    for line in wrong:
        print(line)
    code = "\n".join(assertions(records)) + "\n"
    compiled = subprocess.run([*sys.argv[2:], "-std=gnu11", "-fsyntax-only", f"-I{HEADER.parent}", "-x", "c", "-"],
                              input=code, text=True)
    print(f"{len(records)} records, {sum(map(len, records.values()))} fields, {len(constants)} constants")
    return 1 if wrong or compiled.returncode else 0


if __name__ == "__main__":
    sys.exit(main())
