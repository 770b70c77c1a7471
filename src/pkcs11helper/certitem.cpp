#include "nebralib/certitem.h"

#include "nebralib/buffer/codecs.h"

namespace pkcs11 {
namespace certstoreupdater {

buffer::Buffer<wchar_t> makeCertKey(const buffer::Buffer<unsigned char>& id) {
    buffer::Buffer<wchar_t> key(L"CKAIDHEX:");
    buffer::hexEncode(buffer::BufferRange<unsigned char>(id), key);
    return key;
}

}  // namespace certstoreupdater
}  // namespace pkcs11
