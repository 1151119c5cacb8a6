"""Key/value stores in shared memory, as mappings of bytes.

    import shkv

    with shkv.create("prices", uuid=7) as db:
        db["apple"] = "120"                     # str is stored as UTF-8; bytes as they are
        with db.transaction():
            db["apple"] = b"95"
            del db["pear"]                      # KeyError: and nothing of the transaction stays

    with shkv.open("prices") as db:         # in another process
        print(db["apple"])                      # b'95'
        for key, value in db.items():
            ...

A store is a MutableMapping from bytes to bytes. Leaving the with block closes the handle; the store
stays until destroy(). What include/shkv.h says holds here too: one writer, any number of readers,
handles do not survive a fork. Nothing beyond the standard library is needed, and libovo_shkv.so.0.
"""

import contextlib
import ctypes
import errno
import os
from collections.abc import MutableMapping

__all__ = ["Error", "Store", "create", "open", "WRITE", "READ", "ITER", "FIXED", "VECTOR"]

WRITE, READ, ITER = 0x1, 0x2, 0x4  # access modes of open
FIXED, VECTOR = 0x1, 0x2  # kinds of records of create
MAX_KEY, MAX_VALUE = 2048, 65000


class Error(OSError):
    """A refusal of the library: errno holds its value, filename the store."""


class Buf(ctypes.Structure):
    _fields_ = [("ptr", ctypes.c_void_p), ("len", ctypes.c_uint32)]


class Params(ctypes.Structure):
    _fields_ = [
        ("maxksz", ctypes.c_uint16),
        ("maxvsz", ctypes.c_uint16),
        ("maxents", ctypes.c_uint32),
        ("conf_flg", ctypes.c_uint32),
        ("conf_arg", ctypes.c_uint32),
    ]


def _load():
    lib = ctypes.CDLL(os.environ.get("OVO_SHKV_LIBRARY", "libovo_shkv.so.0"))
    i, u, s = ctypes.c_int, ctypes.c_uint32, ctypes.c_char_p
    buf, err, params = ctypes.POINTER(Buf), ctypes.POINTER(ctypes.c_uint32), ctypes.POINTER(Params)
    for name, *args in (
        ("create", s, u, params, ctypes.c_uint64, err),
        ("open", s, u, ctypes.c_uint64, u, err),
        ("close", i),
        ("destroy", i),
        ("add", i, buf, buf, u),
        ("lookup", i, buf, buf),
        ("delete", i, buf),
        ("iterate", i, buf, buf, ctypes.c_void_p, i),
        ("txn_start", i, err),
        ("txn_commit", i, ctypes.c_void_p),
        ("txn_abort", i),
        ("txn_is_active", i),
        ("get_params", i, params),
    ):
        function = getattr(lib, "shkv_" + name)
        function.argtypes, function.restype = args, i
    return lib


_lib = _load()
MAX_32 = 2**32 - 1


def _bytes(text):
    if isinstance(text, str):
        return text.encode()
    return bytes(memoryview(text))


def _buf(data):
    """A Buf over data, which the caller keeps alive; no byte is copied. A length that does not fit stays too
    long for every store."""
    return Buf(ctypes.cast(ctypes.c_char_p(data), ctypes.c_void_p), min(len(data), MAX_32))


def _name(name):
    name = os.fsencode(name)
    if b"\0" in name:  # the library would see what is before it
        raise ValueError("embedded null byte")
    return name


def _fits(most, **numbers):
    """ctypes cuts what is too wide for a field."""
    for name, number in numbers.items():
        if not 0 <= number <= most:
            raise ValueError(f"{name} is {number}, and goes from 0 to {most}")


class Store(MutableMapping):
    """An open store; made by create() and open()."""

    def __init__(self, name, handle):
        self.name, self.handle = name, handle
        self.params = Params()
        self._check(_lib.shkv_get_params(handle, self.params))
        self._room = MAX_VALUE if self.params.conf_flg & VECTOR else max(self.params.maxvsz, 1)

    def _check(self, result):
        if result:
            raise Error(result, os.strerror(result), self.name)

    def _live(self):
        if not self.handle:
            raise Error(errno.EBADF, "the store is closed", self.name)
        return self.handle

    # The mapping.

    def get(self, key, default=None):
        key = _bytes(key)
        room = ctypes.create_string_buffer(self._room)
        value = Buf(ctypes.addressof(room), self._room)
        result = _lib.shkv_lookup(self._live(), _buf(key), value)
        if result == errno.ENOENT:
            return default
        self._check(result)
        return room.raw[: value.len]

    def __getitem__(self, key):
        value = self.get(key)
        if value is None:
            raise KeyError(key)
        return value

    def __setitem__(self, key, value):
        key, value = _bytes(key), _bytes(value)
        self._check(_lib.shkv_add(self._live(), _buf(key), _buf(value), 0))

    def __delitem__(self, key):
        self[key]  # the library says a word on standard output about a missing key; a KeyError is enough
        key = _bytes(key)
        result = _lib.shkv_delete(self._live(), _buf(key))
        if result == errno.ENOENT:
            raise KeyError(key)
        self._check(result)

    def __contains__(self, key):
        return self.get(key) is not None

    def records(self):
        """All records as pairs, in the order of the buckets. Not a snapshot. The cursor belongs to the
        handle: one iteration at a time."""
        key_room, value_room = ctypes.create_string_buffer(MAX_KEY), ctypes.create_string_buffer(self._room)
        self._check(_lib.shkv_iterate(self._live(), None, None, None, 1))
        while True:
            key = Buf(ctypes.addressof(key_room), MAX_KEY)
            value = Buf(ctypes.addressof(value_room), self._room)
            result = _lib.shkv_iterate(self._live(), key, value, None, 0)
            if result == errno.ENOENT:
                return
            self._check(result)
            yield key_room.raw[: key.len], value_room.raw[: value.len]

    def __iter__(self):
        return (key for key, _ in self.records())

    def __len__(self):
        return sum(1 for _ in self.records())  # a walk: a store does not count its records

    def __bool__(self):
        return True  # and no walk

    def items(self):
        return self.records()

    def values(self):
        return (value for _, value in self.records())

    def clear(self):
        for key in list(self):
            del self[key]

    # Transactions, and the end.

    @contextlib.contextmanager
    def transaction(self, expected=500):
        """The block's changes, all or none: committed at its end, dropped when it raises."""
        _fits(MAX_32, expected=expected)
        self._check(_lib.shkv_txn_start(self._live(), ctypes.c_uint32(expected)))
        try:
            yield self
        except BaseException:
            _lib.shkv_txn_abort(self.handle)
            raise
        self._check(_lib.shkv_txn_commit(self._live(), None))

    @property
    def in_transaction(self):
        """Also true for one that a dead writer has left: commit() or abort() it."""
        return bool(_lib.shkv_txn_is_active(self._live()))

    def commit(self):
        self._check(_lib.shkv_txn_commit(self._live(), None))

    def abort(self):
        self._check(_lib.shkv_txn_abort(self._live()))

    def close(self):
        handle, self.handle = self.handle, 0
        if handle:
            self._check(_lib.shkv_close(handle))

    def destroy(self):
        """Removes the store, for all processes."""
        # Of a store that somebody else has destroyed the handle stays open. Asked first: afterwards the
        # number may be another thread's.
        gone = _lib.shkv_lookup(self._live(), _buf(b"x"), Buf(None, 0)) == errno.EBADF
        self._check(_lib.shkv_destroy(self.handle))
        if gone:
            self.close()
        self.handle = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def __repr__(self):
        return f"<shkv.Store {self.name!r} {'open' if self.handle else 'closed'}>"


def _store(name, handle, err):
    if not handle:
        raise Error(err.value, os.strerror(err.value), name)
    return Store(name, handle)


def create(name, uuid=0, max_key=16, max_value=32, records=2000, kind=FIXED, flags=0, arg=0):
    """Makes a store and opens it for writing. uuid: the service whose budget pays for it (0: none)."""
    _fits(2**16 - 1, max_key=max_key, max_value=max_value)
    _fits(MAX_32, uuid=uuid, records=records, kind=kind, flags=flags, arg=arg)
    err = ctypes.c_uint32(0)
    params = Params(max_key, max_value, records, kind | flags, arg)
    return _store(name, _lib.shkv_create(_name(name), uuid, params, 0, err), err)


def open(name, mode=READ | ITER, uuid=0):
    """Opens a store: for reading and iteration, or with mode=WRITE as its writer."""
    _fits(MAX_32, mode=mode, uuid=uuid)
    err = ctypes.c_uint32(0)
    return _store(name, _lib.shkv_open(_name(name), uuid, 0, mode, err), err)
