"""nebralib.py on real SoftHSM2 tokens and a scratch store; ctest passes the paths in."""
import ctypes
import json
import os
import shutil
import subprocess
import tempfile
import unittest

ENV = os.environ
SHM = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None  # SoftHSM2 syncs every write
WORK = tempfile.mkdtemp(prefix="nebra-py-", dir=SHM)
# Before the library is loaded: the store and the tokens live in WORK only.
ENV["XDG_DATA_HOME"] = os.path.join(WORK, "data")
ENV["SOFTHSM2_CONF"] = os.path.join(WORK, "softhsm2.conf")

import nebralib  # noqa: E402
from nebralib import NebraError  # noqa: E402

MODULE, NEBRA, PIN = ENV["NEBRA_SOFTHSM_MODULE"], ENV["NEBRA_BIN"], b"1234"
# The token "pytok" in group order (with key, root, CA, other): group, CKA_ID, label, file.
CERTS = [("certsWithPrivateKey", "10", "Py Alice", "leaf1.der"),
         ("rootCerts", "01", "Py Root", "root.der"),
         ("caCerts", "02", "Py CA", "ca.der"),
         ("otherCerts", "12", "Py Carol", "leaf3.der")]
STORES = {"certsWithPrivateKey": "MY", "rootCerts": "PyRoot", "caCerts": "PyCA",
          "otherCerts": "PyOther"}


def run(*cmd):
    return subprocess.run(cmd, check=True, capture_output=True, text=True).stdout


def uri(label):
    return f"pkcs11:token={label}?module-path={MODULE}"


def setUpModule():
    os.makedirs(os.path.join(WORK, "tokens"))
    with open(ENV["SOFTHSM2_CONF"], "w") as f:
        f.write(f"directories.tokendir = {WORK}/tokens\nobjectstore.backend = file\n"
                "log.level = ERROR\n")
    for label in ("pytok", "pinlock"):  # pinlock: the wrong PIN's, refused for the whole process
        run(ENV["NEBRA_SOFTHSM_UTIL"], "--init-token", "--free", "--label", label,
            "--so-pin", "12345678", "--pin", PIN.decode())
    run(ENV["NEBRA_TOKENPREP"], MODULE, "pytok", PIN.decode(), "key:10",
        *(f"cert:{i}:{label}:{ENV['NEBRA_TEST_PKI']}/{f}" for _, i, label, f in CERTS))


def tearDownModule():
    shutil.rmtree(WORK, ignore_errors=True)


def status(st):
    """(code, message) of a raw status, which is freed."""
    try:
        nebralib._check(st)
        return nebralib.OK, ""
    except NebraError as e:
        return e.code, e.message


class NebralibTest(unittest.TestCase):
    def tearDown(self):
        self.assertEqual(nebralib.lib.nebra_live_handles(), 0, "the module left handles unfreed")

    def test_version_and_providers(self):
        self.assertEqual(run(NEBRA, "--version").strip(), "nebra " + nebralib.version())
        self.assertEqual(nebralib.abi_version(), nebralib.ABI_VERSION)
        self.assertEqual([p["name"] for p in nebralib.providers()],
                         json.loads(run(NEBRA, "providers", "--json")))

    def test_info_and_harvest(self):
        with nebralib.Token(uri("pytok")) as token:
            info = token.info()
            token.login(PIN)
            harvested = token.harvest()
        self.assertEqual((info["label"], info["manufacturer"]), ("pytok", "SoftHSM project"))
        self.assertIn(info, nebralib.tokens(MODULE))
        self.assertIn(info["uri"], [t["uri"] for t in
                                    json.loads(run(NEBRA, "tokens", "--module", MODULE, "--json"))])
        want = []
        for group, i, label, f in CERTS:
            with open(os.path.join(ENV["NEBRA_TEST_PKI"], f), "rb") as der:
                want.append((group, "CKAIDHEX:" + i, bytes.fromhex(i), label, der.read()))
        self.assertEqual(
            [(r["group"], r["key"], r["id"], r["label"], r["der"]) for r in harvested], want)

    def test_sync_list_remove(self):
        with nebralib.Token(uri("pytok")) as token:
            token.login(PIN)
            runs = [token.sync("PyCSP", roots="PyRoot", cas="PyCA", others="PyOther")
                    for _ in range(2)]
        for rows, change in zip(runs, ("added", "unchanged")):
            self.assertEqual([(r["store"], r["group"], r["key"], r["change"], r["name"])
                              for r in rows if r["change"] != "store"],
                             [(STORES[g], g, "CKAIDHEX:" + i, change, label)
                              for g, i, label, _ in CERTS])
            self.assertEqual([r["store"] for r in rows if r["change"] == "store"],
                             list(STORES.values()))
        for store in STORES.values():
            listed = json.loads(run(NEBRA, "list", "--csp", "PyCSP", "--store", store, "--json"))
            self.assertEqual([(r["key"], r["subject"], r["issuer"], r["serial"], r["not_before"],
                               r["not_after"], r["tokens"].splitlines())
                              for r in nebralib.store_list(store, "PyCSP")],
                             [(c["container"], c["subject"], c["issuer"], c["serial"],
                               c["notBefore"], c["notAfter"], c["tokens"])
                              for c in listed["certificates"]])
            self.assertEqual(len(listed["certificates"]), 1)
        removed = nebralib.remove_token("PyCSP", "pkcs11:token=pytok")
        self.assertEqual([(r["key"], r["change"]) for r in removed if r["change"] != "store"],
                         [("CKAIDHEX:10", "removed")])
        self.assertEqual(nebralib.store_list(None, "PyCSP"), [])
        for store in ("PyRoot", "PyCA", "PyOther"):
            self.assertEqual(nebralib.remove_provider("PyCSP", store), 1)
            self.assertEqual(nebralib.store_list(store, "PyCSP"), [])

    def test_wrong_pin_then_withheld(self):
        with nebralib.Token(uri("pinlock")) as token:
            with self.assertRaises(NebraError) as wrong:
                token.login(b"0000")
            with self.assertRaises(NebraError) as again:
                token.login(PIN)
            flags = int(token.info()["flags"])
        e = wrong.exception
        self.assertEqual((e.code, e.event, e.params.get("CRYPTOKY_ERROR_CODE")),
                         (nebralib.E_EVENT, "Pkcs11Error_CryptokiError", "160"))
        self.assertTrue(e.source and e.line and e.message)
        self.assertEqual(again.exception.code, nebralib.E_PIN_WITHHELD)
        # SoftHSM2 sets CKF_USER_PIN_COUNT_LOW at a wrong PIN and clears it at a right one:
        # still set, so the right PIN never reached the token.
        self.assertTrue(flags & 0x10000)

    def test_c_edge_cases(self):
        lib, h, ref, size = nebralib.lib, ctypes.c_void_p, ctypes.byref, ctypes.c_uint64()
        toks, freed = h(), h()
        self.assertEqual(status(lib.nebra_tokens(MODULE.encode(), ref(toks)))[0], nebralib.OK)
        self.assertEqual(status(lib.nebra_providers(ref(freed)))[0], nebralib.OK)
        self.assertEqual(status(lib.nebra_list_free(freed))[0], nebralib.OK)
        uri_field = nebralib.FIELDS["uri"]
        self.assertEqual(status(lib.nebra_list_get(toks, 0, uri_field, None, ref(size)))[0],
                         nebralib.OK)
        need = size.value
        small, short = ctypes.create_string_buffer(need - 1), ctypes.c_uint64(need - 1)

        def release_every_provider():  # its list is handed out whatever happens
            rows = h()
            st = lib.nebra_remove_token(None, b"", uri("pytok").encode(), ref(rows))
            status(lib.nebra_list_free(rows))
            return st
        cases = [  # what, the call, the code it must give
            ("a list freed twice", lambda: lib.nebra_list_free(freed), nebralib.E_HANDLE),
            ("a freed list read", lambda: lib.nebra_list_count(freed, ref(size)),
             nebralib.E_HANDLE),
            ("a list as a token", lambda: lib.nebra_token_info(toks, ref(h())), nebralib.E_HANDLE),
            ("NULL freed", lambda: lib.nebra_list_free(None), nebralib.OK),
            ("NULL list read", lambda: lib.nebra_list_count(None, ref(size)), nebralib.E_HANDLE),
            ("NULL token", lambda: lib.nebra_token_harvest(None, ref(h())), nebralib.E_HANDLE),
            ("NULL result", lambda: lib.nebra_providers(None), nebralib.E_ARGUMENT),
            ("a field the row lacks",
             lambda: lib.nebra_list_get(toks, 0, nebralib.FIELDS["der"], None, ref(size)),
             nebralib.E_ARGUMENT),
            ("a row past the end",
             lambda: lib.nebra_list_get(toks, 99, uri_field, None, ref(size)), nebralib.E_ARGUMENT),
            ("a buffer too small",
             lambda: lib.nebra_list_get(toks, 0, uri_field, small, ref(short)),
             nebralib.E_BUFFER_SMALL),
            ("a module not UTF-8", lambda: lib.nebra_token_open(b"\xc3(", ref(h())),
             nebralib.E_UTF8),
            ("a store not UTF-8", lambda: lib.nebra_store_list(b"M\xffY", None, ref(h())),
             nebralib.E_UTF8),
            ("a release for every provider", release_every_provider, nebralib.E_ARGUMENT),
        ]
        try:
            for what, call, want in cases:
                with self.subTest(what):
                    code, message = status(call())
                    self.assertEqual(code, want)
                    self.assertEqual(bool(message), want != nebralib.OK)
            self.assertEqual((short.value, small.raw), (need, bytes(need - 1)))
        finally:
            self.assertEqual(status(lib.nebra_list_free(toks))[0], nebralib.OK)
