"""nebralib from Python: its C interface (nebralib/nebra.h) through ctypes.

Every failure is raised as NebraError; results are lists of dicts, one per row.

    import nebralib
    with nebralib.Token("softhsm2") as token:
        token.login(b"1234")
        for row in token.sync("softhsm2"):
            print(row["change"], row.get("name", ""))
"""

import ctypes
import os
import sys
import threading
from ctypes import POINTER, byref, c_char_p, c_int32, c_size_t, c_uint8, c_uint32, c_uint64
from ctypes import c_void_p

__all__ = ["NebraError", "Token", "tokens", "remove_token", "remove_provider", "store_list",
           "providers", "verify_file", "grant_app_access", "has_app_access", "version",
           "abi_version"]

ABI_VERSION = 1  # the header this module was written for

# Status codes (nebra_status_code).
OK, E_EVENT, E_ARGUMENT, E_HANDLE, E_BUFFER_SMALL, E_UTF8, E_PIN_WITHHELD, E_FAILED = range(8)

# Field numbers of the rows, by the names the rows' dicts use; id and der are bytes.
FIELDS = {"uri": 1, "label": 2, "manufacturer": 3, "model": 4, "serial": 5, "group": 6, "key": 7,
          "id": 8, "der": 9, "subject": 10, "issuer": 11, "not_before": 12, "not_after": 13,
          "store": 14, "change": 15, "tokens": 16, "name": 17, "note": 18, "flags": 19,
          "unreadable": 20}
_BYTES = {"id", "der"}
# The fields each kind of list has, in the header's order.
_TOKEN_ROW = ("uri", "label", "manufacturer", "model", "serial", "flags")
_CERT_ROW = ("group", "key", "id", "label", "subject", "issuer", "serial", "not_before",
             "not_after", "der")
# A sync's store rows have only some of these: fields a row lacks are left out of its dict.
_SYNC_ROW = ("store", "group", "change", "key", "label", "subject", "name", "note")
_STORE_ROW = ("key", "subject", "issuer", "serial", "not_before", "not_after", "tokens",
              "unreadable", "der")
_GROUPS = 4  # stores of nebra_sync: with key, root, CA, other


def _candidates():
    """Where the library is looked for, in order."""
    env = os.environ.get("NEBRALIB_LIBRARY")
    if env:
        return [env]
    here = os.path.dirname(os.path.abspath(__file__))
    if sys.platform == "win32":
        # The zip: python/nebralib.py beside bin/nebralib.dll.
        return [os.path.join(here, "..", "bin", "nebralib.dll"), "nebralib.dll"]
    # An installed prefix or the .deb: PREFIX/lib/python3/dist-packages beside PREFIX/lib;
    # otherwise the loader's search (ld.so.cache, LD_LIBRARY_PATH).
    return [os.path.join(here, "..", "..", "libnebralib.so.0"), "libnebralib.so.0"]


def _load():
    tried = []
    for path in _candidates():
        if os.path.isabs(path):
            if not os.path.exists(path):
                tried.append(path + ": no such file")
                continue
            path = os.path.realpath(path)  # ".." as the system resolves it, for library_path
        try:
            return ctypes.CDLL(path), path
        except OSError as e:
            tried.append(f"{path}: {e}")
    raise ImportError("cannot load the nebralib library (set NEBRALIB_LIBRARY to its file): "
                      + "; ".join(tried))


lib, library_path = _load()
try:
    lib.nebra_abi_version.restype = c_uint32
    lib.nebra_abi_version.argtypes = []
    _abi = lib.nebra_abi_version()
except AttributeError:
    raise ImportError(f"{library_path} has no C interface (nebra_abi_version); it is older than "
                      "this module") from None
if _abi != ABI_VERSION:
    raise ImportError(f"{library_path} has C interface ABI {_abi}; this module was written for "
                      f"ABI {ABI_VERSION}")

_status = c_void_p  # nebra_status*: None when the call succeeded
_handle = c_void_p
# Texts of a status come back as pointers, read with the length the call stores.
_text_out = (c_void_p, [c_void_p, POINTER(c_size_t)])
_SIGNATURES = {
    "nebra_version": (c_char_p, []),
    "nebra_live_handles": (c_uint64, []),
    "nebra_status_code": (c_int32, [c_void_p]),
    "nebra_status_event": _text_out,
    "nebra_status_source": _text_out,
    "nebra_status_line": (c_uint32, [c_void_p]),
    "nebra_status_param_count": (c_uint32, [c_void_p]),
    "nebra_status_param_key": (c_void_p, [c_void_p, c_uint32, POINTER(c_size_t)]),
    "nebra_status_param_value": (c_void_p, [c_void_p, c_uint32, POINTER(c_size_t)]),
    "nebra_status_message": _text_out,
    "nebra_status_free": (_status, [c_void_p]),
    "nebra_list_count": (_status, [_handle, POINTER(c_uint64)]),
    "nebra_list_get": (_status, [_handle, c_uint64, c_uint32, c_void_p, POINTER(c_uint64)]),
    "nebra_list_free": (_status, [_handle]),
    "nebra_tokens": (_status, [c_char_p, POINTER(_handle)]),
    "nebra_token_open": (_status, [c_char_p, POINTER(_handle)]),
    "nebra_token_info": (_status, [_handle, POINTER(_handle)]),
    "nebra_token_login": (_status, [_handle, POINTER(c_uint8), c_uint64]),
    "nebra_token_harvest": (_status, [_handle, POINTER(_handle)]),
    "nebra_token_free": (_status, [_handle]),
    "nebra_sync": (_status, [_handle, c_char_p, POINTER(c_char_p), c_uint32, POINTER(_handle)]),
    "nebra_remove_token": (_status, [c_char_p, c_char_p, c_char_p, POINTER(_handle)]),
    "nebra_remove_provider": (_status, [c_char_p, c_char_p, POINTER(c_uint64)]),
    "nebra_store_list": (_status, [c_char_p, c_char_p, POINTER(_handle)]),
    "nebra_providers": (_status, [POINTER(_handle)]),
    "nebra_verify_file": (_status, [c_char_p]),
    "nebra_grant_app_access": (_status, [c_char_p, c_int32]),
    "nebra_has_app_access": (_status, [c_char_p, POINTER(c_int32)]),
}
for _name, (_restype, _argtypes) in _SIGNATURES.items():
    _fn = getattr(lib, _name)
    _fn.restype, _fn.argtypes = _restype, _argtypes

SYNC_PRUNE, SYNC_DRY_RUN, SYNC_ADOPT = 1, 2, 4


class NebraError(Exception):
    """A failed call: code (E_*), event, source, line, params (dict, in order), message.

    A failed sync also carries what it did before the failure in `partial` (rows)."""

    partial = None

    def __init__(self, code, event="", source="", line=0, params=None, message=""):
        super().__init__(message or f"nebralib status {code}")
        self.code, self.event, self.source, self.line = code, event, source, line
        self.params = params if params is not None else {}
        self.message = message


def _status_text(fn, st, *index):
    n = c_size_t()
    p = fn(st, *index, byref(n))
    # The length given, not the NUL: the text stays whole if it ever holds one.
    return ctypes.string_at(p, n.value).decode("utf-8", "replace") if p else ""


def _error(st):
    """The NebraError describing status `st`, which is freed."""
    try:
        count = lib.nebra_status_param_count(st)
        params = {_status_text(lib.nebra_status_param_key, st, i):
                  _status_text(lib.nebra_status_param_value, st, i) for i in range(count)}
        return NebraError(lib.nebra_status_code(st), _status_text(lib.nebra_status_event, st),
                          _status_text(lib.nebra_status_source, st), lib.nebra_status_line(st),
                          params, _status_text(lib.nebra_status_message, st))
    finally:
        again = lib.nebra_status_free(st)
        if again:  # cannot happen with a status the library just handed out
            lib.nebra_status_free(again)


def _check(st):
    """Raises the status of a call as NebraError; returns nothing when it is NULL."""
    if st:
        raise _error(st)


def _text(value, what, optional=False):
    """Text for the library: str as UTF-8 (undecodable file names stay as their bytes), bytes
    and os.PathLike as they are; None only where the call takes NULL."""
    if value is None:
        if optional:
            return None
        raise TypeError(f"{what} must not be None")
    value = os.fspath(value)
    data = value.encode("utf-8", "surrogateescape") if isinstance(value, str) else bytes(value)
    if b"\0" in data:
        raise ValueError(f"{what} contains a NUL character")
    return data


def _field(lst, row, name):
    size = c_uint64()
    _check(lib.nebra_list_get(lst, row, FIELDS[name], None, byref(size)))
    buf = ctypes.create_string_buffer(max(size.value, 1))
    if size.value:
        _check(lib.nebra_list_get(lst, row, FIELDS[name], buf, byref(size)))
    data = buf.raw[:size.value]
    return data if name in _BYTES else data.decode("utf-8")


def _rows(lst, names):
    """The rows of list handle `lst` as dicts of the fields `names` each row has."""
    if not lst:
        return []
    count = c_uint64()
    _check(lib.nebra_list_count(lst, byref(count)))
    rows = []
    for r in range(count.value):
        row = {}
        for name in names:
            try:
                row[name] = _field(lst, r, name)
            except NebraError as e:
                if e.code != E_ARGUMENT:  # E_ARGUMENT: a field this row does not have
                    raise
        rows.append(row)
    return rows


def _list_call(names, fn, *args):
    """Calls fn(*args, &list) and returns its rows; the list is freed. On failure the error
    carries the rows the list holds in `partial`."""
    lst = _handle()
    st = fn(*args, byref(lst))
    err = _error(st) if st else None  # frees the status before anything else can fail
    try:
        rows = _rows(lst, names)
    finally:
        _check(lib.nebra_list_free(lst))
    if err:
        err.partial = rows
        raise err
    return rows


class Token:
    """A token of a PKCS#11 module (a file, a p11-kit name, or a PKCS#11 URI); a context
    manager that closes it. One thread at a time uses its handle (the library requires it)."""

    def __init__(self, module=None):
        self._h = None
        self._lock = threading.Lock()
        if module is not None:
            self.open(module)

    def open(self, module):
        """Loads the module and chooses its first token, or the first the URI matches."""
        self.close()
        h = _handle()
        _check(lib.nebra_token_open(_text(module, "module"), byref(h)))
        with self._lock:
            self._h = h

    def _call(self, fn, *args):
        with self._lock:
            if self._h is None:
                raise ValueError("the token is not open")
            return fn(self._h, *args)

    def info(self):
        """The token as a dict: uri, label, manufacturer, model, serial, flags."""
        return self._call(lambda h: _list_call(_TOKEN_ROW, lib.nebra_token_info, h))[0]

    def login(self, pin):
        """Logs in with the PIN's bytes; None lets the reader's PIN pad ask for it."""
        if pin is None:
            return self._call(lambda h: _check(lib.nebra_token_login(h, None, 0)))
        if isinstance(pin, str):
            raise TypeError("the PIN is bytes (a str has no single encoding a card expects)")
        n = memoryview(pin).nbytes
        buf = (c_uint8 * max(n, 1)).from_buffer_copy(pin if n else b"\0")
        try:
            self._call(lambda h: _check(lib.nebra_token_login(h, buf, n)))
        finally:
            ctypes.memset(buf, 0, ctypes.sizeof(buf))  # no copy of the PIN outlives the call

    def harvest(self):
        """Every certificate of the token: dicts of group, key, id, label, subject, issuer,
        serial, not_before, not_after, der."""
        return self._call(lambda h: _list_call(_CERT_ROW, lib.nebra_token_harvest, h))

    def sync(self, csp, store="MY", roots=None, cas=None, others=None, prune=False,
             dry_run=False, adopt=False):
        """Brings the stores in step with the logged-in token; returns the rows of what it did
        (store, group, change, key, label, subject, name; a store's row: store, change, note).
        A NebraError raised here carries the rows done before the failure in `partial`."""
        stores = (c_char_p * _GROUPS)(*(_text(s, "store", optional=True)
                                        for s in (store, roots, cas, others)))
        flags = (SYNC_PRUNE if prune else 0) | (SYNC_DRY_RUN if dry_run else 0) | \
            (SYNC_ADOPT if adopt else 0)
        csp = _text(csp, "csp")
        return self._call(lambda h: _list_call(_SYNC_ROW, lib.nebra_sync, h, csp, stores, flags))

    def close(self):
        """Frees the token (the library logs out and lets the module go)."""
        with self._lock:
            h, self._h = self._h, None
        if h is not None:
            _check(lib.nebra_token_free(h))

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        try:
            self.close()
        except Exception:  # at interpreter exit, or a handle already gone: nothing to report to
            pass


def tokens(module):
    """The tokens in the module's slots: dicts of uri, label, manufacturer, model, serial,
    flags."""
    return _list_call(_TOKEN_ROW, lib.nebra_tokens, _text(module, "module"))


def remove_token(csp, token_uri, store=None):
    """Takes the certificates recorded for the tokens the URI matches out of the store (None:
    MY); rows as sync's."""
    return _list_call(_SYNC_ROW, lib.nebra_remove_token, _text(store, "store", True),
                      _text(csp, "csp"), _text(token_uri, "token_uri"))


def remove_provider(csp, store=None):
    """Removes every certificate bound to csp from the store (None: MY); returns how many."""
    removed = c_uint64()
    _check(lib.nebra_remove_provider(_text(store, "store", True), _text(csp, "csp"),
                                     byref(removed)))
    return removed.value


def store_list(store=None, csp=None):
    """The certificates bound to csp (None: any) in the store (None: MY): dicts of key,
    subject, issuer, serial, not_before, not_after, tokens (one URI a line), der."""
    return _list_call(_STORE_ROW, lib.nebra_store_list, _text(store, "store", True),
                      _text(csp, "csp", True))


def providers():
    """The installed key providers: dicts of name."""
    return _list_call(("name",), lib.nebra_providers)


def verify_file(path):
    """Returns when the file carries a valid Authenticode signature chaining to a trusted root;
    raises NebraError otherwise."""
    _check(lib.nebra_verify_file(_text(path, "path")))


def grant_app_access(path, recursive=False):
    """Grants ALL APPLICATION PACKAGES read access to a file, or a folder and its contents."""
    _check(lib.nebra_grant_app_access(_text(path, "path"), 1 if recursive else 0))


def has_app_access(path):
    """True when the file's DACL gives ALL APPLICATION PACKAGES read access."""
    granted = c_int32()
    _check(lib.nebra_has_app_access(_text(path, "path"), byref(granted)))
    return granted.value != 0


def version():
    """The library's version ("1.2.3")."""
    return lib.nebra_version().decode("ascii")


def abi_version():
    """The ABI version of the library's C interface."""
    return lib.nebra_abi_version()
