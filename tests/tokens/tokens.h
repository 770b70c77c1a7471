// Two SoftHSM2 tokens with certificates under the same key identifiers, a private store database,
// and the nebra tool run as a user runs it.
#pragma once

#include <string>
#include <vector>

#include "support/softhsm.h"

namespace tokentest {

struct Outcome {
    int status;
    std::string out, err;
};

class TwoTokens : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    // Runs build/bin/nebra with `args` (shell words) and PIN=1234 in the environment.
    Outcome nebra(const std::string& args);
    // The token URI for `label` through SoftHSM2 (module-path).
    static std::string uri(const std::string& label);
    // Certificates of the provider "Prov" in store MY: "container label-of-token(s)" lines.
    std::vector<std::string> stored();

    nebratest::SoftHsm hsm;
    nebratest::TempDir data;
    std::vector<buffer::Buffer<unsigned char>> der;  // der[0..1] on cardA, der[2..3] on cardB
    std::string previousData;
};

}  // namespace tokentest
