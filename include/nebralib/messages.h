// Failures in words: the sentence the nebra tool prints in front of a failure's event, for every
// program that reports the library's events to people.
#pragma once

#include <string>

#include "nebralib/events/genericevent.h"
#include "nebralib/export.h"

namespace pkcs11 {
namespace certstoreupdater {

// "CKR_PIN_INCORRECT" for 0xA0, and so on; "code N" for a code without a name here.
NEBRALIB_EXPORT std::string cryptokiName(unsigned long rv);
// One UTF-8 sentence on what went wrong and what to do; "" when there is nothing to add to the
// event. Text from a token or a store is in it as it is: make it safe before showing it.
NEBRALIB_EXPORT std::string explain(const orvo::GenericEvent& e);
// The Cryptoki return value an event carries (CRYPTOKY_ERROR_CODE), or CKR_OK when it has none.
NEBRALIB_EXPORT unsigned long cryptokiCode(const orvo::GenericEvent& e);

}  // namespace certstoreupdater
}  // namespace pkcs11
