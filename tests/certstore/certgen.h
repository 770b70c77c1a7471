// Real certificates in bulk for load, crash and concurrency tests and the store benchmark: one
// EC P-256 CA key signs `count` distinct leaf certificates without extensions (OpenSSL). Linux
// only.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "nebralib/buffer/buffer.h"
#include "nebralib/certitem.h"

namespace storetest {

std::vector<buffer::Buffer<unsigned char>> generateCertificates(std::size_t count);

// The map a token holding these certificates would give: keys from 4-byte CKA_IDs 0, 1, ...,
// labels "Load N" (empty for every tenth, so that default friendly names are used too).
pkcs11::certstoreupdater::CertMap tokenMap(const std::vector<buffer::Buffer<unsigned char>>& ders);

}  // namespace storetest
