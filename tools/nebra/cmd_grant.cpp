// nebra grant: opens files and folders to app-container processes (read access for
// ALL APPLICATION PACKAGES, S-1-15-2-1). nebra acl: prints a file's DACL.
#include <cstdio>
#include <iostream>

#include "nebralib/mspermissions.h"
#include "platform/security.h"
#include "tools/nebra/cli.h"

namespace {

namespace sec = platform::security;

// Counts the descriptors read and written while a grant runs.
class Counter : public sec::ForwardingApi {
public:
    bool getFileSecurity(const std::wstring& path, std::uint32_t information, void* descriptor,
                         std::uint32_t length, std::uint32_t* needed) override {
        bool ok = ForwardingApi::getFileSecurity(path, information, descriptor, length, needed);
        if (ok) ++read;
        return ok;
    }
    bool setFileSecurity(const std::wstring& path, std::uint32_t information,
                         void* descriptor) override {
        bool ok = ForwardingApi::setFileSecurity(path, information, descriptor);
        if (ok) ++written;
        return ok;
    }
    unsigned long read = 0;
    unsigned long written = 0;
};

int runGrant(const nebra::Args& args) {
    args.allow({"recursive", "quiet"});
    if (args.positional().empty()) throw nebra::UsageError("give at least one PATH");
    AnyPackageSid sid;
    Counter counter;
    sec::ScopedApi scope(counter);
    for (const auto& p : args.positional()) {
        boost::filesystem::path path(p);
        if (args.flag("recursive")) {
            MSPermissionsUtils::addPermissionsRecursive(path, sid);
        } else {
            MSPermissionsUtils::addPermissions(path, sid);
        }
    }
    if (!args.flag("quiet"))
        std::cout << "checked " << counter.read << " entries, wrote " << counter.written
                  << " DACLs\n";
    return 0;
}

const char* aceTypeName(unsigned type) {
    switch (type) {
        case 0:
            return "allowed";
        case 1:
            return "denied";
        case 2:
            return "audit";
        case 3:
            return "alarm";
        case 5:
            return "allowed-object";
        case 6:
            return "denied-object";
        case 7:
            return "audit-object";
        case 8:
            return "alarm-object";
        case 9:
            return "allowed-callback";
        case 10:
            return "denied-callback";
        case 11:
            return "allowed-callback-object";
        case 12:
            return "denied-callback-object";
        case 13:
            return "audit-callback";
        case 14:
            return "alarm-callback";
        case 15:
            return "audit-callback-object";
        case 16:
            return "alarm-callback-object";
        case 17:
            return "mandatory-label";
        case 18:
            return "resource-attribute";
        case 19:
            return "scoped-policy";
        default:
            return "unknown";
    }
}

int runAcl(const nebra::Args& args) {
    args.allow({});
    if (args.positional().size() != 1) throw nebra::UsageError("give exactly one PATH");
    boost::filesystem::path path(args.positional()[0]);
    SecurityDescriptorDacl descriptor(sec::widePath(path));
    auto info = descriptor.getAclSizeInformation();
    std::cout << "# " << path.string() << ": " << info.AceCount << " entries, "
              << info.AclBytesInUse << " bytes in use, " << info.AclBytesFree << " free\n";
    for (std::uint32_t i = 0; i < info.AceCount; ++i) {
        void* ace = nullptr;
        if (!sec::api().getAce(const_cast<void*>(descriptor.getDacl()), i, &ace)) {
            std::cerr << "error: entry " << i << " cannot be read (error " << sec::api().lastError()
                      << ")\n";
            return 1;
        }
        const auto* p = static_cast<const unsigned char*>(ace);
        unsigned type = p[0], flags = p[1], size = p[2] | (p[3] << 8);
        std::uint32_t mask = std::uint32_t(p[4]) | (std::uint32_t(p[5]) << 8) |
                             (std::uint32_t(p[6]) << 16) | (std::uint32_t(p[7]) << 24);
        // Object entries keep a flags word and up to two GUIDs before their SID.
        std::size_t sidAt = 8;
        bool object =
            (type >= 5 && type <= 8) || type == 11 || type == 12 || type == 15 || type == 16;
        if (object && size >= 12) sidAt = 12 + 16 * ((p[8] & 1) + ((p[8] >> 1) & 1));
        std::string sid = size > sidAt ? sec::sidToString(p + sidAt, size - sidAt) : "";
        char line[96];
        std::snprintf(line, sizeof line, "%-16s 0x%02X 0x%08lX ", aceTypeName(type), flags,
                      static_cast<unsigned long>(mask));
        std::cout << line << (sid.empty() ? "(no SID)" : sid) << "\n";
    }
    return 0;
}

nebra::Registrar grant({"grant",
                        "give app containers read access to files and folders",
                        "usage: nebra grant PATH... [--recursive] [--quiet]\n"
                        "\n"
                        "Adds an entry that allows ALL APPLICATION PACKAGES (S-1-15-2-1) to read\n"
                        "(GENERIC_READ, inherited by new files and folders) in front of the DACL\n"
                        "of each PATH. A DACL that already names that SID in any entry is left\n"
                        "as it is, so running the command again writes nothing.\n"
                        "\n"
                        "  --recursive  also the entries of each folder and their entries (two\n"
                        "               levels down; links to folders are followed)\n"
                        "  --quiet      do not print how many entries were checked and written\n"
                        "\n"
                        "The first failure stops the command; what was granted before it stays.\n",
                        runGrant,
                        {}});

nebra::Registrar acl({"acl",
                      "print the DACL of a file or folder",
                      "usage: nebra acl PATH\n"
                      "\n"
                      "Prints the DACL of PATH, one entry a line: type, flags, access mask and\n"
                      "SID, after a line with the entry count and the ACL's bytes in use.\n",
                      runAcl,
                      {}});

}  // namespace
