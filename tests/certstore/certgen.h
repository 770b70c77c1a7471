// Real certificates in bulk for load, crash and concurrency tests and the store benchmark: one
// EC P-256 CA signs `count` distinct leaf certificates (OpenSSL). Linux only.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "nebralib/buffer/buffer.h"
#include "nebralib/certitem.h"

namespace storetest {

std::vector<buffer::Buffer<unsigned char>> generateCertificates(std::size_t count);
// A file of certificates: each as a 4-byte big-endian length followed by its DER.
bool writeCertificateFile(const std::string& path,
                          const std::vector<buffer::Buffer<unsigned char>>& certs);
std::vector<buffer::Buffer<unsigned char>> readCertificateFile(const std::string& path);

// The map a token holding these certificates would give: keys from 4-byte CKA_IDs 0, 1, ...,
// labels "Load N" (empty for every tenth, so that default friendly names are used too).
pkcs11::certstoreupdater::CertMap tokenMap(const std::vector<buffer::Buffer<unsigned char>>& ders);

}  // namespace storetest
