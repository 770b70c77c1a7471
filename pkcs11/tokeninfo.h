// Inside the library: CK_TOKEN_INFO as CkToken::info() gives it, for callers that need the raw
// structure's other fields (the PIN lengths) from the same C_GetTokenInfo call.
#pragma once

#include "nebralib/pkcs11/client.h"

namespace pkcs11 {

CkTokenInfo tokenInfoOf(const CK_TOKEN_INFO& raw);

}  // namespace pkcs11
