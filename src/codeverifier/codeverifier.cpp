#include "nebralib/codeverifier.h"

#include "nebralib/events/certstoreupdatererror.h"
#include "platform/trust.h"

namespace pkcs11 {
namespace certstoreupdater {

namespace {
constexpr const wchar_t* kSource = L"src\\codeverifier";
constexpr int kInvalidFileSignatureLine = 89;
}  // namespace

void CodeVerifier::verify(buffer::Buffer<wchar_t>& path) {
    if (!platform::trust::verifyFile(path)) {
        throw CertStoreUpdaterError_InvalidFileSignature(buffer::Buffer<wchar_t>(kSource),
                                                         kInvalidFileSignatureLine);
    }
}

}  // namespace certstoreupdater
}  // namespace pkcs11
