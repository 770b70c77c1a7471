// Authenticode verifier: the layout of a PE image around its certificate table, and the table's
// single entry.
#include <cstring>

#include "platform/posix/authenticode_internal.h"

namespace platform {
namespace authenticode {
namespace detail {

namespace {

using der::Reader;

std::uint32_t le16(const unsigned char* p) {
    return p[0] | (p[1] << 8);
}
std::uint32_t le32(const unsigned char* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

// Signatures are a few kilobytes; a table beyond this is not read.
constexpr std::uint64_t kMaxTable = 64ull * 1024 * 1024;

}  // namespace

Layout parseLayout(Source& src) {
    const std::uint64_t size = src.size();
    unsigned char dos[64];
    if (size < sizeof dos) fail(Status::NotPortableExecutable);
    src.read(0, dos, sizeof dos);
    if (dos[0] != 'M' || dos[1] != 'Z') fail(Status::NotPortableExecutable);
    const std::uint64_t pe = le32(dos + 0x3C);
    unsigned char nt[26];  // "PE\0\0", the COFF header, the optional header's magic
    if (pe + sizeof nt > size) fail(Status::NotPortableExecutable);
    src.read(pe, nt, sizeof nt);
    if (std::memcmp(nt, "PE\0\0", 4) != 0) fail(Status::NotPortableExecutable);
    const std::uint64_t optSize = le16(nt + 20);
    const std::uint64_t opt = pe + 24;
    std::uint64_t countAt, dirsAt;
    switch (le16(nt + 24)) {
        case 0x10B:
            countAt = 92, dirsAt = 96;
            break;  // PE32
        case 0x20B:
            countAt = 108, dirsAt = 112;
            break;  // PE32+
        default:
            fail(Status::NotPortableExecutable);
    }
    if (optSize < countAt + 4 || opt + dirsAt > size) fail(Status::NotPortableExecutable);
    unsigned char count[4];
    src.read(opt + countAt, count, 4);
    Layout l;
    l.checksum = opt + 64;
    l.securityDir = opt + dirsAt + 4 * 8;
    if (le32(count) < 5 || optSize < dirsAt + 5 * 8) fail(Status::Unsigned);
    if (l.securityDir + 8 > size) fail(Status::NotPortableExecutable);
    unsigned char entry[8];
    src.read(l.securityDir, entry, 8);
    l.table = le32(entry);
    l.tableSize = le32(entry + 4);
    if (l.table == 0 && l.tableSize == 0) fail(Status::Unsigned);
    // The table lies after the headers it is hashed around and ends the file exactly.
    if (l.table < l.securityDir + 8 || l.tableSize < 8 || l.tableSize > kMaxTable ||
        l.table + l.tableSize != size)
        fail(Status::BadCertificateTable);
    return l;
}

Tlv certificateEntry(const std::vector<unsigned char>& table) {
    const std::uint64_t length = le32(table.data());
    if (le16(table.data() + 4) != 0x0200 || le16(table.data() + 6) != 0x0002 || length < 8 ||
        ((length + 7) & ~7ull) != table.size())
        fail(Status::BadCertificateTable);
    Reader r(table.data() + 8, static_cast<std::size_t>(length - 8));
    Tlv object = r.next();
    for (const unsigned char* p = object.start + object.size(); p < table.data() + table.size();
         ++p)
        if (*p != 0) fail(Status::BadCertificateTable);
    if (table.data() + table.size() - (object.start + object.size()) >= 8)
        fail(Status::BadCertificateTable);
    return object;
}

}  // namespace detail
}  // namespace authenticode
}  // namespace platform
