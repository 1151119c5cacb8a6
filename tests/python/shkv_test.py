"""The Python module against the C side: the tool reads what it wrote, and it reads what the tool wrote.

Runs in a /dev/shm of its own; SHKVCTL and HEADERS say where the tool and the C headers are.
"""

import errno
import json
import os
import re
import subprocess
import unittest
from pathlib import Path

import shkv


def ctl(*args):
    out = subprocess.run([os.environ["SHKVCTL"], *args, "--json"], capture_output=True, text=True)
    return out.returncode, [json.loads(line) for line in out.stdout.splitlines()]


class Module(unittest.TestCase):
    def setUp(self):
        self.db = shkv.create("py", max_key=32, max_value=200, records=100)

    def tearDown(self):
        if self.db.handle:
            self.db.destroy()

    def test_the_tool_reads_what_it_wrote_and_the_other_way(self):
        self.db["apple"] = "120"
        self.db[b"\x00\xff"] = b"\x01\x00\xfe"
        self.assertEqual(ctl("get", "py", "apple"), (0, [{"key": "apple", "found": True, "value": "120"}]))
        self.assertEqual(ctl("get", "py", "--hex", "00ff")[1][0]["value_hex"], "0100fe")
        self.db.close()
        self.assertEqual(ctl("set", "py", "pear", "x" * 200)[0], 0)
        self.assertEqual(ctl("del", "py", "apple")[0], 0)
        self.db = shkv.open("py", shkv.WRITE)
        self.assertEqual(dict(self.db), {b"pear": b"x" * 200, b"\x00\xff": b"\x01\x00\xfe"})

    def test_it_is_a_mapping(self):
        model = {}
        for i in range(3000):  # beyond what was planned: it grows
            key, value = b"k%d" % (i * 7 % 1100), b"v" * (i % 200)
            self.db[key] = model[key] = value
            if i % 5 == 0:
                del self.db[key], model[key]
        self.assertEqual(dict(self.db.items()), model)
        self.assertEqual(sorted(self.db), sorted(model))
        self.assertEqual(len(self.db), len(model))
        self.assertEqual(self.db.pop("k1"), model.pop(b"k1"))
        self.assertNotIn("k1", self.db)
        self.assertEqual(self.db.get("k1", "none"), "none")
        for missing in (lambda: self.db["k1"], lambda: self.db.pop("k1"), lambda: self.db.__delitem__("k1")):
            self.assertRaises(KeyError, missing)
        self.db.update(k1=b"", k2=bytearray(b"\0\0"))
        self.assertEqual((self.db["k1"], self.db["k2"]), (b"", b"\0\0"))
        self.db.clear()
        self.assertEqual(len(self.db), 0)

    def test_refusals_say_what_and_which(self):
        cases = [
            (errno.EEXIST, lambda: shkv.create("py")),
            (errno.ENOENT, lambda: shkv.open("absent")),
            (errno.EINVAL, lambda: self.db.__setitem__("k", b"x" * 201)),
            (errno.EINVAL, lambda: self.db.__setitem__("", b"x")),
            (errno.EINVAL, lambda: list(shkv.open("py", shkv.READ))),
            (errno.EINVAL, lambda: shkv.open("py").__setitem__("k", "v")),
        ]
        for value, call in cases:
            with self.assertRaises(shkv.Error) as caught:
                call()
            self.assertEqual(caught.exception.errno, value)
            self.assertIn(caught.exception.filename, ("py", "absent"))
        self.assertRaises(TypeError, self.db.__setitem__, "k", 5)
        with shkv.open("py") as reader:
            self.db.destroy()
            self.assertRaises(shkv.Error, lambda: reader["k"])
        self.assertRaises(shkv.Error, lambda: reader["k"])  # closed by its block

    def test_nothing_is_cut(self):
        cases = [dict(name="one\0two"), dict(max_key=65552), dict(max_value=65568), dict(records=2**32 + 100)]
        for case in cases + [dict(uuid=2**32 + 7), dict(flags=2**32), dict(arg=-1), dict(records=-1)]:
            with self.subTest(case), self.assertRaises(ValueError):
                shkv.create(**{"name": "cut", **case})
        for name, case in (("py\0x", {}), ("py", {"uuid": 2**32}), ("py", {"mode": 2**32 + shkv.READ})):
            with self.subTest(case), self.assertRaises(ValueError):
                shkv.open(name, **case)
        with self.assertRaises(ValueError), self.db.transaction(2**32):
            pass
        self.assertEqual([store["store"] for store in ctl("ls")[1]], ["py"])

    def test_a_store_destroyed_by_others_keeps_no_handle(self):
        for _ in range(40):  # more than the handles of a process
            db = shkv.create("gone")
            self.assertEqual(ctl("destroy", "--force", "gone")[0], 0)
            db.destroy()
            self.assertEqual(db.handle, 0)

    def test_a_transaction_is_all_or_none(self):
        with shkv.open("py") as reader:
            with self.db.transaction():
                self.db["a"] = "1"
                self.assertTrue(self.db.in_transaction)
                self.assertEqual((self.db.get("a"), reader.get("a")), (b"1", None))
            self.assertEqual(reader["a"], b"1")
            with self.assertRaises(ZeroDivisionError), self.db.transaction():
                self.db["a"] = "2"
                1 // 0
            self.assertEqual((reader["a"], self.db.in_transaction), (b"1", False))

    def test_what_a_killed_writer_leaves_is_taken_over(self):
        self.db.close()
        pid = os.fork()
        if pid == 0:
            db = shkv.open("py", shkv.WRITE)
            db["base"] = "b"
            staging = db.transaction()
            staging.__enter__()
            db["staged"] = "s"
            os.kill(os.getpid(), 9)
        os.waitpid(pid, 0)
        self.db = shkv.open("py", shkv.WRITE)
        self.assertTrue(self.db.in_transaction)
        self.assertEqual(shkv.open("py").get("staged"), None)
        self.db.commit()
        self.assertEqual(sorted(self.db), [b"base", b"staged"])

    def test_large_values_of_a_vector_store(self):
        with shkv.create("pyv", max_key=16, max_value=500, kind=shkv.VECTOR) as db:
            for size in (0, 1, 127, 128, 2049, 65000):
                db["k"] = os.urandom(size // 2) + b"\0" * (size - size // 2)
                self.assertEqual(len(db["k"]), size)
                self.assertEqual(list(db.records()), [(b"k", db["k"])])
            db.destroy()

    def test_its_numbers_are_those_of_the_header(self):
        text = "".join(Path(os.environ["HEADERS"], name).read_text() for name in ("shkv.h", "shkv_format.h"))
        for name, value in (
            ("SHKV_AM_WRITE", shkv.WRITE),
            ("SHKV_AM_READ", shkv.READ),
            ("SHKV_AM_ITER", shkv.ITER),
            ("CONF_FIXEDMM", shkv.FIXED),
            ("CONF_VECTORMM", shkv.VECTOR),
        ):
            self.assertEqual(int(re.search(rf"define {name} (0x\w+)u", text)[1], 16), value, name)


if __name__ == "__main__":
    unittest.main()
