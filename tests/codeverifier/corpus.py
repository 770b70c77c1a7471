#!/usr/bin/env python3
"""Builds and edits the signed-file test corpus (standard library only; openssl for timestamps).

  corpus.py mkpe {pe32|pe32plus} OUT [--data-size N]   write a small runnable PE image
  corpus.py mkpe bare OUT                              PE32+ headers that end with the certificate-
                                                       table entry: no sections, five directories
  corpus.py set-checksum FILE VALUE                    overwrite the optional header's CheckSum
  corpus.py flip FILE {timestamp|section}              flip one bit of TimeDateStamp / first section
  corpus.py flip-sigvalue FILE                         flip one bit of the primary signature value
  corpus.py second-signer FILE                         repeat the SignerInfo in the signer set
  corpus.py append FILE N                              append N bytes after the certificate table
  corpus.py truncate FILE N                            cut the last N bytes off the file
  corpus.py set-sigalg FILE OID                        rename the primary signer's signature
                                                       algorithm (the signature stays as it is)
  corpus.py pad FILE N                                 exactly N zero bytes after the signature in
                                                       its entry (an unsigned filler attribute
                                                       keeps the entry a multiple of 8 bytes)
  corpus.py timestamp FILE {rfc3161|pkcs9} TSACERT TSAKEY CHAIN WORKDIR [DIGEST]
        add a timestamp to the primary signature, made offline by `openssl ts` (RFC 3161) or
        `openssl cms` (a PKCS #9 countersignature, signed with DIGEST, sha256 by default)
"""
import os
import struct
import subprocess
import sys

# ---------------------------------------------------------------- PE images


def mkpe_bare(out):
    e_lfanew, opt_size = 0x80, 112 + 5 * 8
    dos = bytearray(e_lfanew)
    dos[0:2] = b"MZ"
    struct.pack_into("<I", dos, 0x3C, e_lfanew)
    coff = struct.pack("<HHIIIHH", 0x8664, 0, 0x5F5E1000, 0, 0, opt_size, 0x0022)
    opt = bytearray(opt_size)
    struct.pack_into("<H", opt, 0, 0x20B)
    struct.pack_into("<I", opt, 108, 5)  # NumberOfRvaAndSizes
    write(out, bytes(dos) + b"PE\0\0" + coff + bytes(opt))


def mkpe(kind, out, data_size):
    plus = kind == "pe32plus"
    file_align, sect_align = 0x200, 0x1000
    e_lfanew = 0x80
    opt_size = 240 if plus else 224
    text_raw = 0x200
    # xor eax, eax; ret  -- the program exits with status 0.
    code = bytes([0x31, 0xC0, 0xC3]) + b"\xcc" * (text_raw - 3)
    data_raw = (data_size + file_align - 1) // file_align * file_align
    data = bytearray(os.urandom(data_size) if data_size > 4096 else
                     bytes((i * 131 + 7) & 0xFF for i in range(data_size)))
    data += b"\0" * (data_raw - data_size)

    headers_size = 0x200
    text_rva, data_rva = 0x1000, 0x2000
    image_size = data_rva + (data_raw + sect_align - 1) // sect_align * sect_align

    dos = bytearray(e_lfanew)
    dos[0:2] = b"MZ"
    struct.pack_into("<I", dos, 0x3C, e_lfanew)
    dos[0x40:0x40 + 38] = b"This program cannot be run in DOS mode"

    coff = struct.pack("<HHIIIHH", 0x8664 if plus else 0x14C, 2, 0x5F5E1000, 0, 0, opt_size,
                       0x0022 if plus else 0x0102)
    opt = bytearray()
    opt += struct.pack("<HBBIIII", 0x20B if plus else 0x10B, 2, 40, text_raw, data_raw, 0,
                       text_rva)
    opt += struct.pack("<I", text_rva)  # BaseOfCode
    if plus:
        opt += struct.pack("<Q", 0x140000000)
    else:
        opt += struct.pack("<II", data_rva, 0x400000)
    opt += struct.pack("<IIHHHHHHIIIIHH", sect_align, file_align, 6, 0, 0, 0, 6, 0, 0,
                       image_size, headers_size, 0, 3, 0x8160 if plus else 0x8140)
    sizes = (0x100000, 0x1000, 0x100000, 0x1000)
    opt += struct.pack("<QQQQ" if plus else "<IIII", *sizes)
    opt += struct.pack("<II", 0, 16)
    opt += b"\0" * (16 * 8)
    assert len(opt) == opt_size

    def section(name, vsize, rva, raw_size, raw_ptr, chars):
        return struct.pack("<8sIIIIIIHHI", name, vsize, rva, raw_size, raw_ptr, 0, 0, 0, 0, chars)

    sects = section(b".text", 3, text_rva, text_raw, headers_size, 0x60000020)
    sects += section(b".data", data_size, data_rva, data_raw, headers_size + text_raw, 0xC0000040)

    head = bytes(dos) + b"PE\0\0" + coff + bytes(opt) + sects
    head += b"\0" * (headers_size - len(head))
    with open(out, "wb") as f:
        f.write(head)
        f.write(code)
        f.write(data)


def pe_offsets(buf):
    e_lfanew = struct.unpack_from("<I", buf, 0x3C)[0]
    opt = e_lfanew + 24
    plus = struct.unpack_from("<H", buf, opt)[0] == 0x20B
    dirs = opt + (112 if plus else 96)
    return {"timestamp": e_lfanew + 8, "checksum": opt + 64, "secdir": dirs + 4 * 8,
            "sections": opt + struct.unpack_from("<H", buf, e_lfanew + 20)[0]}


def read(path):
    with open(path, "rb") as f:
        return bytearray(f.read())


def write(path, buf):
    with open(path, "wb") as f:
        f.write(buf)


def get_pkcs7(buf):
    off = pe_offsets(buf)["secdir"]
    table, size = struct.unpack_from("<II", buf, off)
    der = buf[table + 8:table + size]
    # The entry is padded to 8 bytes; the DER object's own length says where it ends.
    n, hdr = der[1], 2
    if n & 0x80:
        hdr += n & 0x7F
        n = int.from_bytes(der[2:hdr], "big")
    return table, bytes(der[:hdr + n])


def set_pkcs7(buf, der, pad=None):
    off = pe_offsets(buf)["secdir"]
    table = struct.unpack_from("<I", buf, off)[0]
    if pad is None:
        pad = (8 - len(der) % 8) % 8
    entry = struct.pack("<IHH", 8 + len(der) + pad, 0x0200, 2) + der + b"\0" * pad
    out = buf[:table] + entry
    struct.pack_into("<II", out, off, table, len(entry))
    return out

# ---------------------------------------------------------------- DER editing


def enc_len(n):
    if n < 0x80:
        return bytes([n])
    b = n.to_bytes((n.bit_length() + 7) // 8, "big")
    return bytes([0x80 | len(b)]) + b


class Node:
    """One TLV; constructed nodes are opened on demand and re-encoded with fresh lengths."""

    def __init__(self, tag, val):
        self.tag, self.val, self.kids = tag, val, None

    def open(self):
        if self.kids is None:
            self.kids = parse_all(self.val)
        return self.kids

    def enc(self):
        body = b"".join(k.enc() for k in self.kids) if self.kids is not None else self.val
        return bytes([self.tag]) + enc_len(len(body)) + body


def parse_all(buf):
    out, i = [], 0
    while i < len(buf):
        tag, n = buf[i], buf[i + 1]
        i += 2
        if n & 0x80:
            k = n & 0x7F
            n = int.from_bytes(buf[i:i + k], "big")
            i += k
        out.append(Node(tag, bytes(buf[i:i + n])))
        i += n
    return out


def tlv(tag, body):
    return bytes([tag]) + enc_len(len(body)) + body


def oid(dotted):
    parts = [int(p) for p in dotted.split(".")]
    body = bytearray([parts[0] * 40 + parts[1]])
    for p in parts[2:]:
        chunk = [p & 0x7F]
        p >>= 7
        while p:
            chunk.insert(0, 0x80 | (p & 0x7F))
            p >>= 7
        body += bytes(chunk)
    return tlv(0x06, bytes(body))


def signed_data(content_info):
    return content_info.open()[1].open()[0]


def primary_signer(ci):
    sd = signed_data(ci).open()
    return sd[-1].open()[0]


def sig_value(signer):
    return next(k for k in signer.open() if k.tag == 0x04)


def flip_sigvalue(path):
    buf = read(path)
    _, der = get_pkcs7(buf)
    ci = parse_all(der)[0]
    sv = sig_value(primary_signer(ci))
    v = bytearray(sv.val)
    v[len(v) // 2] ^= 0x01
    sv.val = bytes(v)
    write(path, set_pkcs7(buf, ci.enc()))


def second_signer(path):
    buf = read(path)
    _, der = get_pkcs7(buf)
    ci = parse_all(der)[0]
    signers = signed_data(ci).open()[-1]
    signers.open().append(parse_all(signers.open()[0].enc())[0])
    write(path, set_pkcs7(buf, ci.enc()))


def set_sigalg(path, dotted):
    buf = read(path)
    _, der = get_pkcs7(buf)
    ci = parse_all(der)[0]
    kids = primary_signer(ci).open()
    alg = kids[kids.index(sig_value(primary_signer(ci))) - 1]
    alg.open()[0] = parse_all(oid(dotted))[0]
    write(path, set_pkcs7(buf, ci.enc()))


def pad(path, n):
    buf = read(path)
    _, der = get_pkcs7(buf)
    ci = parse_all(der)[0]
    kids = primary_signer(ci).open()
    assert all(k.tag != 0xA1 for k in kids), "the signer already has unsigned attributes"
    base = list(kids)
    for k in range(-1, 16):
        kids[:] = base
        if k >= 0:  # an unsigned attribute of no meaning, k bytes long
            kids.append(parse_all(tlv(0xA1, tlv(0x30, oid("1.3.6.1.4.1.99999.3") +
                                                tlv(0x31, tlv(0x04, b"F" * k)))))[0])
        if (len(ci.enc()) + n) % 8 == 0:
            break
    write(path, set_pkcs7(buf, ci.enc(), n))


def timestamp(path, kind, tsa_cert, tsa_key, chain, work, digest="sha256"):
    buf = read(path)
    _, der = get_pkcs7(buf)
    ci = parse_all(der)[0]
    signer = primary_signer(ci)
    imprint = os.path.join(work, "sigvalue.bin")
    with open(imprint, "wb") as f:
        f.write(sig_value(signer).val)

    def run(*args):
        r = subprocess.run(["openssl", *args], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        if r.returncode != 0:
            sys.exit("openssl %s failed: %s" % (args[0], r.stderr.decode(errors="replace")))

    if kind == "rfc3161":
        query, token = os.path.join(work, "q.tsq"), os.path.join(work, "token.der")
        cnf = os.path.join(work, "tsa.cnf")
        serial = os.path.join(work, "tsaserial")
        with open(serial, "w") as f:
            f.write("01\n")
        with open(cnf, "w") as f:
            f.write(f"""[ tsa ]
default_tsa = tsa1
[ tsa1 ]
serial = {serial}
crypto_device = builtin
signer_cert = {tsa_cert}
signer_key = {tsa_key}
certs = {chain}
signer_digest = sha256
default_policy = 1.3.6.1.4.1.99999.1
other_policies = 1.3.6.1.4.1.99999.2
ess_cert_id_chain = no
digests = sha1, sha256, sha384, sha512
accuracy = secs:1
ordering = no
tsa_name = yes
ess_cert_id_alg = sha256
""")
        run("ts", "-query", "-data", imprint, "-sha256", "-cert", "-no_nonce", "-out", query)
        run("ts", "-reply", "-config", cnf, "-queryfile", query, "-token_out", "-out", token)
        with open(token, "rb") as f:
            attr = tlv(0x30, oid("1.3.6.1.4.1.311.3.3.1") + tlv(0x31, f.read()))
    else:
        cms = os.path.join(work, "countersig.der")
        run("cms", "-sign", "-binary", "-nodetach", "-nosmimecap", "-md", digest, "-in",
            imprint, "-signer", tsa_cert, "-inkey", tsa_key, "-outform", "DER", "-out", cms)
        with open(cms, "rb") as f:
            tsa_ci = parse_all(f.read())[0]
        tsa_sd = signed_data(tsa_ci).open()
        attr = tlv(0x30, oid("1.2.840.113549.1.9.6") + tlv(0x31, tsa_sd[-1].open()[0].enc()))
        # The countersigner's certificate travels in the outer certificate set.
        certs = next(k for k in signed_data(ci).open() if k.tag == 0xA0)
        certs.open().extend(next(k for k in tsa_sd if k.tag == 0xA0).open())

    kids = signer.open()
    unauth = next((k for k in kids if k.tag == 0xA1), None)
    if unauth is None:
        unauth = Node(0xA1, b"")
        unauth.kids = []
        kids.append(unauth)
    unauth.open().append(parse_all(attr)[0])
    write(path, set_pkcs7(buf, ci.enc()))


def main(argv):
    cmd = argv[1]
    if cmd == "mkpe" and argv[2] == "bare":
        mkpe_bare(argv[3])
    elif cmd == "mkpe":
        size = int(argv[4]) if len(argv) > 4 else 3000
        mkpe(argv[2], argv[3], size)
    elif cmd == "set-checksum":
        buf = read(argv[2])
        struct.pack_into("<I", buf, pe_offsets(buf)["checksum"], int(argv[3], 0))
        write(argv[2], buf)
    elif cmd == "flip":
        buf = read(argv[2])
        offs = pe_offsets(buf)
        if argv[3] == "timestamp":
            buf[offs["timestamp"]] ^= 0x01
        else:
            raw_ptr = struct.unpack_from("<I", buf, offs["sections"] + 20)[0]
            buf[raw_ptr + 1] ^= 0x01
        write(argv[2], buf)
    elif cmd == "flip-sigvalue":
        flip_sigvalue(argv[2])
    elif cmd == "second-signer":
        second_signer(argv[2])
    elif cmd == "append":
        buf = read(argv[2])
        write(argv[2], buf + b"\x5a" * int(argv[3]))
    elif cmd == "truncate":
        buf = read(argv[2])
        write(argv[2], buf[:-int(argv[3])])
    elif cmd == "set-sigalg":
        set_sigalg(argv[2], argv[3])
    elif cmd == "pad":
        pad(argv[2], int(argv[3]))
    elif cmd == "timestamp":
        timestamp(*argv[2:9])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv)
