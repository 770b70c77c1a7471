#include "platform/trust.h"

#include <string>

#include "platform/posix/authenticode.h"
#include "platform/posix/filename.h"

namespace platform {
namespace trust {

bool verifyFile(const buffer::Buffer<wchar_t>& path) {
    std::string p;
    if (path.empty() || !posix::toFileName(path.data(), path.size(), p)) return false;
    return authenticode::verifyFile(p, authenticode::defaultPolicy()) ==
           authenticode::Status::Trusted;
}

}  // namespace trust
}  // namespace platform
