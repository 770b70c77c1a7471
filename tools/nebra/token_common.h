// Shared by the commands that read a token: module resolution, token info and certificate output.
#pragma once

#include <string>

#include "tools/nebra/cli.h"

namespace nebra {

// A module given as a path is used as it is; a bare name is looked up among the modules
// registered with p11-kit (by module name or file name). The result is the narrow path the
// library loads (on Windows in the ANSI code page); a path that cannot be expressed there raises
// std::runtime_error with the reason.
std::string resolveModule(const std::string& pathOrName);

// Token info of the first reported slot with a token, as the helper will log in to.
pkcs11::CkTokenInfo firstTokenInfo(const std::string& module);

// One certificate record as a JSON object (key, id, label, subject, issuer, validity).
std::string certJson(const buffer::Buffer<wchar_t>& key,
                     const pkcs11::certstoreupdater::CertItem& item);

}  // namespace nebra
