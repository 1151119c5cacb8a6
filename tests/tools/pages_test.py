"""What shkvctl and its pages say of events and of JSON, against the library's sources and the tool's output.

Runs in a /dev/shm of its own, with shkvctl in PATH: pages_test.py ROOT
"""

import json
import re
import subprocess
import sys
import unittest
from pathlib import Path

ROOT = Path(sys.argv.pop())


def lines_of(command):
    out = subprocess.run(["bash", "-c", command], capture_output=True, text=True)
    assert out.returncode <= 3, out
    return (out.stdout + out.stderr).splitlines()


def plain(text):
    """A message with single spaces and no line end: the gaps in some are no matter here."""
    return re.sub(" +", " ", text.replace("\\n", "")).strip()


def arguments(text, at):
    """Of the call whose bracket opens at at."""
    args, depth, quoted = [""], 0, False
    for c in text[at:]:
        quoted ^= c == '"'
        depth += 0 if quoted else (c in "({") - (c in ")}")
        if depth == 0:
            return [plain(re.sub(r"\s+", " ", arg)) for arg in args]
        if c == "," and depth == 1 and not quoted:
            args.append("")
        elif depth > 1 or quoted or c != "(":
            args[-1] += c


class Events(unittest.TestCase):
    def test_every_failure_site_has_its_row_and_every_row_its_site(self):
        files = [f for f in (ROOT / "shared/src").rglob("*.cc") if f.parent.name != "diag"]
        text = re.sub("//[^\n]*", "", "".join(f.read_text() for f in files))
        text = re.sub(r'"\s*\n\s*"', "", text)
        table = {e["event"]: e for e in map(json.loads, lines_of("shkvctl trace --list --json"))}
        said, from_callers = {}, 0
        for site in re.finditer(r"\b(fail|fail_err|fail_pair|trace_one|trace_pair)\(", text):
            name, args = site[1], arguments(text, site.end() - 1)
            if len(args) < 3 or args[0] == "nullptr" or args[1] == "0":
                continue
            ids = [int(i, 16) for i in re.findall("0x([0-9A-Fa-f]+)", args[1])]
            at = 5 if name in ("fail_pair", "fail_err", "trace_pair") else 4
            texts = [] if name.startswith("trace") else re.findall(r'"((?:[^"\\]|\\.)*)"', "".join(args[at : at + 1]))
            texts = [plain(t) for t in texts if t != "%s"]
            from_callers += not ids
            for no, event in enumerate(ids):
                self.assertEqual(name.endswith("pair"), "second" in table[event], hex(event))
                one_each = len(ids) > 1 and len(texts) == len(ids)
                said.setdefault(event, set()).update([texts[no]] if one_each else texts)
        # Sites that get their event from a caller: the supernode's object, a mapping, a directory, a
        # record's checksum, and the two of an object that does not open. One more needs rows by hand.
        self.assertEqual((from_callers, len(table)), (6, 152))
        literals = {int(i, 16) for i in re.findall(r"\b0x([0-9A-Fa-f]{2})\b", text)}
        self.assertLessEqual(set(table), literals)
        everything = plain(text)
        for number, event in table.items():
            with self.subTest(event=hex(number)):
                self.assertLessEqual(said.get(number, set()), set(event["messages"]))
                for message in event["messages"]:
                    self.assertTrue(message[0] == "(" or '"' + message in everything, message)
                for function in re.findall(r"\w+", event["function"]):
                    self.assertIn(function + "(", text)


# Command of docs/json.md and what is run; "" is set-up. Some bits are what dead processes leave: a
# reshape token, a rebuild that waits.
POKE = "printf '\\{}' | dd of=/dev/shm/shkvdb/{} bs=1 seek={} conv=notrunc 2> /dev/null"
RUNS = [
    ("", """cd /dev/shm; for i in 1 2 3; do echo '{"op":"set","key":"a'$i'","value":""}'; done > ch
            seq 3000 | sed 's/.*/k&\\tv/' > in; shkvctl create gone -q; rm shkvdb/gone
            cp shkvdb/ovo_shkv_registry_db shkvdb/stray"""),
    ("create", "create s --uuid 7; create v --vector"),
    ("set", "set s a b; set s --hex ff 00"),
    ("get", "get s a none; get s --hex ff"),
    ("scan", "scan s; scan s --count"),
    ("del", "del s a none"),
    ("load", "load s /dev/shm/in"),
    ("dump", "dump s /dev/shm/d"),
    ("apply", "apply s /dev/shm/ch; apply s /dev/shm/ch --dry-run"),
    ("set-opts", "set-opts s --slice 9"),
    ("ls", "ls; ls -r"),
    ("stat", "stat s"),
    ("check", "check --all"),
    ("who", "who s"),
    ("doctor", "doctor"),
    ("gc", "gc"),
    ("top", "top"),
    ("completion", "completion"),
    ("", "shkvctl create t1; shkvctl create t2; shkvctl set t1 -q '' v"),
    ("trace", "trace t1"),
    ("txn", "txn status s; txn start s; txn status s"),
    ("", "shkvctl set s b c"),
    ("stat", "stat s"),
    ("txn", "txn commit s; txn start s; txn abort s"),
    ("reshape", "reshape s"),
    ("limits", "limits"),
    ("cleanup", "cleanup 0 --dry-run"),
    ("Errors", "get nosuch k; get"),
    ("", ";".join([POKE.format("020", "t1", 81), POKE.format("100", "t2", 81), POKE.format("001", "t1", 84)])),
    ("stat", "stat t1; stat t2"),
    ("", "shkvctl create t2_iodb"),
    ("destroy", "destroy t2 --force"),
]
SELDOM = {"who", "doctor", "gc", "trace", "completion"}  # what these tell of is seldom there
TYPES = {str: "string", bool: "bool", int: "number", float: "number", dict: "object", list: "list", type(None): "null"}


class JsonPage(unittest.TestCase):
    def read_page(self):
        """Rows "| `path` ? | type | ..." under "## command", as command -> path -> (type, optional)."""
        page, command = {}, ""
        for line in (ROOT / "docs/json.md").read_text().splitlines():
            if line.startswith("## "):
                command = line[3:]
            if row := re.match(r"\| `(.*?)`( \?)? \| (.*?) \|", line):
                page.setdefault(command, {})[row[1]] = (row[3], bool(row[2]))
        for only_in_the_file in ("shkv_dump", "shkv_dump_end"):
            del page["dump"][only_in_the_file]
        return page

    def check(self, members, obj, prefix, seen):
        there = set()
        for name, value in obj.items():
            path = prefix + name
            if path not in members and path.endswith("_hex"):
                path = path[:-4]
            self.assertIn(path, members)
            there.add(path)
            of_list = members[path][0].partition(" of ")
            self.assertEqual("string" if of_list[0] == "bytes" else of_list[0], TYPES[type(value)], path)
            described = {m.startswith(path + ".") or 2 * m.startswith(path + "[].") for m in members}
            if isinstance(value, dict) and 1 in described:
                self.check(members, value, path + ".", seen)
            for each in value if isinstance(value, list) else ():
                self.assertIn(TYPES[type(each)], of_list[2] or TYPES[type(each)], path)
                if 2 in described:
                    self.check(members, each, path + "[].", seen)
        here = {m for m in members if m.rpartition(".")[0] == prefix[:-1] and not members[m][1]}
        self.assertLessEqual(here, there)
        seen |= there

    def test_every_member_is_on_the_page_and_every_row_is_printed(self):
        page, seen = self.read_page(), {}
        for command, runs in RUNS:
            for run in runs.split(";") if command else [runs]:
                for line in lines_of(f"shkvctl {run} --json") if command else lines_of(run) and ():
                    with self.subTest(run=run, line=line):
                        obj = json.loads(line)
                        name = "Errors" if "error" in obj else command
                        self.check(page[name], obj, "", seen.setdefault(name, set()))
        for command in set(seen) - SELDOM:
            # How far a rebuild is shows only in the middle of one.
            self.assertEqual(set(page[command]) - seen[command] - {"rebuild.moved"}, set(), command)


if __name__ == "__main__":
    unittest.main()
