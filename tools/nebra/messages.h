// Failures in words, for the lines the tool prints in front of an event.
#pragma once

#include <string>

#include "tools/nebra/cli.h"

namespace nebra {

// "CKR_PIN_INCORRECT" for 0xA0, and so on; "code N" for a code without a name here.
std::string cryptokiName(unsigned long rv);
// One sentence on what went wrong and what to do; "" when there is nothing to add to the event.
std::string explain(const orvo::GenericEvent& e);
// The Cryptoki return value an event carries (CRYPTOKY_ERROR_CODE), or CKR_OK when it has none.
unsigned long cryptokiCode(const orvo::GenericEvent& e);

}  // namespace nebra
