#include "platform/posix/authenticode.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "platform/posix/authenticode_internal.h"

namespace platform {
namespace authenticode {

namespace {

using der::Malformed;
using der::Reader;
using namespace detail;

// ---------------------------------------------------------------- OpenSSL helpers

struct Free {
    void operator()(X509* p) const { X509_free(p); }
    void operator()(X509_NAME* p) const { X509_NAME_free(p); }
    void operator()(ASN1_INTEGER* p) const { ASN1_INTEGER_free(p); }
    void operator()(X509_STORE* p) const { X509_STORE_free(p); }
    void operator()(X509_STORE_CTX* p) const { X509_STORE_CTX_free(p); }
    void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
    void operator()(STACK_OF(X509) * p) const { sk_X509_free(p); }
};
template <class T>
using Ptr = std::unique_ptr<T, Free>;

const EVP_MD* md(int digest) {
    const EVP_MD* m = EVP_get_digestbyname(kDigests[digest].name);
    if (!m) fail(Status::Unsupported);
    return m;
}

bool digestEquals(int digest, const unsigned char* p, std::size_t n, const Tlv& expected) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (EVP_Digest(p, n, out, &len, md(digest), nullptr) != 1) fail(Status::Unsupported);
    return der::sameBytes(expected, out, len);
}

// Certificates of a SignedData, decoded; an element that is no certificate is malformed.
std::vector<Ptr<X509>> decodeCertificates(const std::vector<Tlv>& elements) {
    std::vector<Ptr<X509>> out;
    for (const Tlv& t : elements) {
        const unsigned char* p = t.start;
        Ptr<X509> cert(d2i_X509(nullptr, &p, static_cast<long>(t.size())));
        if (!cert || p != t.start + t.size()) throw Malformed();
        out.push_back(std::move(cert));
    }
    return out;
}

X509* findSigner(const SignerInfo& si, const std::vector<X509*>& certs) {
    if (si.version == 1) {
        const unsigned char* p = si.issuer.start;
        Ptr<X509_NAME> issuer(d2i_X509_NAME(nullptr, &p, static_cast<long>(si.issuer.size())));
        p = si.serial.start;
        Ptr<ASN1_INTEGER> serial(
            d2i_ASN1_INTEGER(nullptr, &p, static_cast<long>(si.serial.size())));
        if (!issuer || !serial) throw Malformed();
        for (X509* c : certs) {
            if (X509_NAME_cmp(X509_get_issuer_name(c), issuer.get()) == 0 &&
                ASN1_INTEGER_cmp(X509_get0_serialNumber(c), serial.get()) == 0)
                return c;
        }
    } else {
        for (X509* c : certs) {
            const ASN1_OCTET_STRING* ski = X509_get0_subject_key_id(c);
            if (ski && der::sameBytes(si.keyId, ski->data, static_cast<std::size_t>(ski->length)))
                return c;
        }
    }
    return nullptr;
}

// The signer's signature over its signed attributes, which are signed as a SET OF (tag 0x31).
bool signatureValid(const SignerInfo& si, X509* cert) {
    const SignatureAlg& alg = kSignatureAlgs[si.signatureAlg];
    if (alg.digest >= 0 && alg.digest != si.digest) return false;
    EVP_PKEY* key = X509_get0_pubkey(cert);
    if (!key) return false;
    const int type = EVP_PKEY_get_base_id(key);
    if ((alg.key == KeyKind::Rsa) != (type == EVP_PKEY_RSA)) return false;
    if ((alg.key == KeyKind::Ec) != (type == EVP_PKEY_EC)) return false;
    std::vector<unsigned char> tbs(si.signedAttrs.start,
                                   si.signedAttrs.start + si.signedAttrs.size());
    tbs[0] = der::kSet;
    Ptr<EVP_MD_CTX> ctx(EVP_MD_CTX_new());
    return ctx && EVP_DigestVerifyInit(ctx.get(), nullptr, md(si.digest), nullptr, key) == 1 &&
           EVP_DigestVerify(ctx.get(), si.signature.value, si.signature.length, tbs.data(),
                            tbs.size()) == 1;
}

// A SignerInfo whose messageDigest covers `data`, whose certificate is among `certs` and whose
// signature verifies; returns that certificate.
X509* checkSigner(const SignerInfo& si, const unsigned char* data, std::size_t size,
                  const std::vector<X509*>& certs, Status failure) {
    if (!digestEquals(si.digest, data, size, si.attrs.messageDigest)) fail(failure);
    X509* cert = findSigner(si, certs);
    if (!cert || !signatureValid(si, cert)) fail(failure);
    return cert;
}

// The trust anchors: the policy's roots and, with system roots, OpenSSL's default locations (or
// SSL_CERT_DIR / SSL_CERT_FILE). The hashed directory is read lazily, one issuer at a time; the
// bundle file is parsed whole, which costs tens of milliseconds, so it is added only on request.
Ptr<X509_STORE> trustStore(const Policy& policy, bool withBundle) {
    Ptr<X509_STORE> store(X509_STORE_new());
    if (!store) throw std::bad_alloc();
    if (policy.systemRoots) {
        // A missing directory or bundle simply contributes no roots.
        if (X509_LOOKUP* dir = X509_STORE_add_lookup(store.get(), X509_LOOKUP_hash_dir()))
            X509_LOOKUP_add_dir(dir, nullptr, X509_FILETYPE_DEFAULT);
        if (withBundle) {
            if (X509_LOOKUP* file = X509_STORE_add_lookup(store.get(), X509_LOOKUP_file()))
                X509_LOOKUP_load_file(file, nullptr, X509_FILETYPE_DEFAULT);
        }
    }
    for (const Der& d : policy.roots) {
        const unsigned char* p = d.data();
        Ptr<X509> cert(d2i_X509(nullptr, &p, static_cast<long>(d.size())));
        if (cert) X509_STORE_add_cert(store.get(), cert.get());
    }
    return store;
}

// Builds and checks the chain of `leaf` at `time`, then the extended key usage: each certificate
// with an EKU extension must list `usage` (a CA may list anyExtendedKeyUsage instead).
Status checkChain(X509* leaf, const std::vector<X509*>& intermediates, X509_STORE* store,
                  std::int64_t time, std::uint32_t usage) {
    Ptr<STACK_OF(X509)> untrusted(sk_X509_new_null());
    Ptr<X509_STORE_CTX> ctx(X509_STORE_CTX_new());
    if (!untrusted || !ctx) throw std::bad_alloc();
    for (X509* c : intermediates)
        if (!sk_X509_push(untrusted.get(), c)) throw std::bad_alloc();
    if (X509_STORE_CTX_init(ctx.get(), store, leaf, untrusted.get()) != 1) return Status::Untrusted;
    X509_VERIFY_PARAM_set_time(X509_STORE_CTX_get0_param(ctx.get()), static_cast<time_t>(time));
    if (X509_verify_cert(ctx.get()) != 1) {
        const int err = X509_STORE_CTX_get_error(ctx.get());
        return err == X509_V_ERR_CERT_HAS_EXPIRED || err == X509_V_ERR_CERT_NOT_YET_VALID
                   ? Status::Expired
                   : Status::Untrusted;
    }
    STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(ctx.get());
    for (int i = 0; i < sk_X509_num(chain); ++i) {
        X509* cert = sk_X509_value(chain, i);
        // Each certificate but the trust anchor is judged by its issuer's signature, which must
        // not rest on MD5 (nor the older MD2 and MD4).
        int md = NID_undef;
        if (i + 1 < sk_X509_num(chain) &&
            OBJ_find_sigid_algs(X509_get_signature_nid(cert), &md, nullptr) &&
            (md == NID_md5 || md == NID_md4 || md == NID_md2))
            return Status::Unsupported;
        const std::uint32_t flags = X509_get_extension_flags(cert);
        if (flags & EXFLAG_INVALID) return Status::Untrusted;
        if (!(flags & EXFLAG_XKUSAGE)) continue;
        const std::uint32_t allowed = usage | (i > 0 ? XKU_ANYEKU : 0);
        if (!(X509_get_extended_key_usage(cert) & allowed)) return Status::WrongUsage;
    }
    return Status::Trusted;
}

std::vector<X509*> raw(const std::vector<Ptr<X509>>& certs) {
    std::vector<X509*> out;
    for (const auto& c : certs) out.push_back(c.get());
    return out;
}

// Checks the timestamp of the primary signature; its chain is judged at the time it states.
void checkTimestamp(const Signature& s, const std::vector<X509*>& outerCerts, X509_STORE* store) {
    const Timestamp& ts = s.timestamp;
    const Tlv& stamped = s.sd.signer.signature;  // the timestamp covers the signature value
    std::vector<Ptr<X509>> own;
    std::vector<X509*> certs;
    X509* tsa;
    if (ts.kind == Timestamp::kRfc3161) {
        if (!digestEquals(ts.imprintDigest, stamped.value, stamped.length, ts.imprint))
            fail(Status::BadTimestamp);
        own = decodeCertificates(ts.token.certificates);
        certs = raw(own);
        certs.insert(certs.end(), outerCerts.begin(), outerCerts.end());
        tsa = checkSigner(ts.token.signer, ts.tstInfo.start, ts.tstInfo.size(), certs,
                          Status::BadTimestamp);
    } else {
        certs = outerCerts;
        tsa = checkSigner(ts.counterSigner, stamped.value, stamped.length, certs,
                          Status::BadTimestamp);
    }
    if (checkChain(tsa, certs, store, ts.time, XKU_TIMESTAMP) != Status::Trusted)
        fail(Status::BadTimestamp);
}

// ---------------------------------------------------------------- image sources

class MemorySource : public Source {
public:
    MemorySource(const unsigned char* p, std::size_t n) : p_(p), n_(n) {}
    std::uint64_t size() const override { return n_; }
    void read(std::uint64_t off, unsigned char* dst, std::size_t n) override {
        if (n) std::memcpy(dst, p_ + off, n);
    }
    void digest(EVP_MD_CTX* ctx, std::uint64_t off, std::uint64_t n) override {
        if (EVP_DigestUpdate(ctx, p_ + off, static_cast<std::size_t>(n)) != 1)
            fail(Status::Unsupported);
    }

private:
    const unsigned char* p_;
    std::size_t n_;
};

class FileSource : public Source {
public:
    FileSource(int fd, std::uint64_t size) : fd_(fd), size_(size) {}
    std::uint64_t size() const override { return size_; }
    void read(std::uint64_t off, unsigned char* dst, std::size_t n) override {
        while (n > 0) {
            ssize_t got = pread(fd_, dst, n, static_cast<off_t>(off));
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) fail(Status::Unreadable);  // an error, or the file shrank
            dst += got;
            off += static_cast<std::uint64_t>(got);
            n -= static_cast<std::size_t>(got);
        }
    }
    void digest(EVP_MD_CTX* ctx, std::uint64_t off, std::uint64_t n) override {
        if (chunk_.empty()) chunk_.resize(kChunk);
        while (n > 0) {
            const std::size_t step = n < kChunk ? static_cast<std::size_t>(n) : kChunk;
            read(off, chunk_.data(), step);
            if (EVP_DigestUpdate(ctx, chunk_.data(), step) != 1) fail(Status::Unsupported);
            off += step;
            n -= step;
        }
    }

private:
    static constexpr std::size_t kChunk = 256 * 1024;
    int fd_;
    std::uint64_t size_;
    std::vector<unsigned char> chunk_;
};

// The timestamp, then the signer's chain at the stamped time or the policy's.
Status judge(const Signature& s, const std::vector<X509*>& certs, X509* signer, X509_STORE& store,
             const Policy& policy) {
    std::int64_t when = policy.time ? *policy.time : static_cast<std::int64_t>(std::time(nullptr));
    if (s.timestamp.kind != Timestamp::kNone) {
        try {
            checkTimestamp(s, certs, &store);
        } catch (const Fail& f) {
            return f.status;
        }
        when = s.timestamp.time;
    }
    return checkChain(signer, certs, &store, when, XKU_CODE_SIGN);
}

Status verify(Source& src, const Policy& policy) {
    const Layout l = parseLayout(src);
    std::vector<unsigned char> table(static_cast<std::size_t>(l.tableSize));
    src.read(l.table, table.data(), table.size());
    const Signature s = parseAuthenticode(certificateEntry(table));

    // Image hash: everything before the table but the CheckSum and the certificate-table entry.
    Ptr<EVP_MD_CTX> ctx(EVP_MD_CTX_new());
    if (!ctx) throw std::bad_alloc();
    unsigned char hash[EVP_MAX_MD_SIZE];
    unsigned int hashLen = 0;
    if (EVP_DigestInit_ex(ctx.get(), md(s.imageDigest), nullptr) != 1) fail(Status::Unsupported);
    src.digest(ctx.get(), 0, l.checksum);
    src.digest(ctx.get(), l.checksum + 4, l.securityDir - (l.checksum + 4));
    src.digest(ctx.get(), l.securityDir + 8, l.table - (l.securityDir + 8));
    if (EVP_DigestFinal_ex(ctx.get(), hash, &hashLen) != 1) fail(Status::Unsupported);
    if (!der::sameBytes(s.imageHash, hash, hashLen)) return Status::DigestMismatch;

    // The signed attributes cover the content without its outer tag and length.
    const std::vector<Ptr<X509>> owned = decodeCertificates(s.sd.certificates);
    const std::vector<X509*> certs = raw(owned);
    X509* signer = checkSigner(s.sd.signer, s.sd.content.value, s.sd.content.length, certs,
                               Status::BadSignature);

    // Trust: most signatures chain to a root the hashed directory finds; any other verdict is
    // confirmed with the whole bundle loaded, so the answer is that of all system roots.
    Status verdict = judge(s, certs, signer, *trustStore(policy, false), policy);
    if (verdict != Status::Trusted && policy.systemRoots)
        verdict = judge(s, certs, signer, *trustStore(policy, true), policy);
    return verdict;
}

// Runs a verification with OpenSSL's error queue left as it was found.
template <class F>
Status guarded(F f) {
    ERR_set_mark();
    Status result;
    try {
        result = f();
    } catch (const Malformed&) {
        result = Status::Malformed;
    } catch (const Fail& failure) {
        result = failure.status;
    }
    ERR_pop_to_mark();
    return result;
}

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) close(fd_);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

std::atomic<RootSource> g_rootSource{nullptr};

}  // namespace

const char* statusText(Status s) {
    switch (s) {
        case Status::Trusted:
            return "trusted";
        case Status::Unreadable:
            return "file cannot be read";
        case Status::NotPortableExecutable:
            return "not a PE image";
        case Status::Unsigned:
            return "no signature";
        case Status::BadCertificateTable:
            return "invalid certificate table";
        case Status::Malformed:
            return "malformed signature";
        case Status::Unsupported:
            return "unsupported signature algorithm or form";
        case Status::DigestMismatch:
            return "image hash does not match the signature";
        case Status::BadSignature:
            return "signature does not verify";
        case Status::BadTimestamp:
            return "timestamp does not verify";
        case Status::Untrusted:
            return "no chain to a trusted root";
        case Status::Expired:
            return "certificate not valid at the verification time";
        case Status::WrongUsage:
            return "certificate not valid for code signing";
    }
    return "unknown";
}

Status verifyImage(const unsigned char* data, std::size_t size, const Policy& policy) {
    MemorySource src(data, size);
    return guarded([&] { return verify(src, policy); });
}

Status verifyFile(const std::string& path, const Policy& policy) {
    // O_NONBLOCK: opening a FIFO must not wait for a writer; it is rejected just below.
    Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat st;
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return Status::Unreadable;
    posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    FileSource src(fd.get(), static_cast<std::uint64_t>(st.st_size));
    return guarded([&] { return verify(src, policy); });
}

Status parseSignature(const unsigned char* data, std::size_t size) {
    return guarded([&] {
        Reader r(data, size);
        parseAuthenticode(r.next());
        return Status::Trusted;
    });
}

void setRootSource(RootSource source) {
    g_rootSource.store(source);
}

Policy defaultPolicy() {
    Policy p;
    RootSource source = g_rootSource.load();
    p.roots = source ? source() : storeRootCertificates();
    return p;
}

}  // namespace authenticode
}  // namespace platform
