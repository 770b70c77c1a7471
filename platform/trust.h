// Code-signature trust: the one platform service the code verifier needs.
#pragma once

#include "nebralib/buffer/buffer.h"
#include "nebralib/export.h"

namespace platform {
namespace trust {

// Checks the Authenticode signature embedded in the file at `path` (UTF-16 units, handed on as
// they stand; an empty buffer is a null path) and its certificate chain to a trusted root, without
// user interface, revocation checks or catalogs, and releases whatever state the check opened.
// True when the file is trusted; false for every other outcome, including unreadable files.
NEBRALIB_EXPORT bool verifyFile(const buffer::Buffer<wchar_t>& path);

}  // namespace trust
}  // namespace platform
