// Helpers shared by the commands that work on a certificate store (list, remove, sync).
#pragma once

#include <memory>
#include <string>

#include "tools/nebra/cli.h"

namespace nebra {

// Opens the store named by --store (default "MY"). When the store cannot be opened, prints the
// event with a hint on where the store lives and rethrows it.
std::unique_ptr<pkcs11::certstoreupdater::CertStoreHelper> openStore(const Args& args);
// The value of --store, "MY" by default.
std::wstring storeName(const Args& args);
// A required, non-empty --csp.
std::wstring requiredCsp(const Args& args);

}  // namespace nebra
