// Failures in words, for the lines the tool prints in front of an event: the library's sentences.
#pragma once

#include "nebralib/messages.h"

namespace nebra {

using pkcs11::certstoreupdater::cryptokiCode;
using pkcs11::certstoreupdater::cryptokiName;
using pkcs11::certstoreupdater::explain;

}  // namespace nebra
