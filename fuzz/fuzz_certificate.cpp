// Certificate decoding and everything a caller can ask of a decoded certificate: names as text,
// extensions, key usage, basic constraints, validity. Any input must either decode or raise an
// event; nothing may crash, leak or read outside the input. Also feeds the input to the tag,
// length and OBJECT IDENTIFIER decoders.
//
// Long run:  build-fuzz/bin/fuzz_certificate -max_total_time=3600 fuzz/corpus/fuzz_certificate
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "nebralib/nebralib.h"

namespace {

template <class F>
void guarded(F f) {
    try {
        f();
    } catch (const orvo::GenericEvent&) {
        // A bad value is reported as an event: that is the expected outcome for most inputs.
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    buffer::Buffer<unsigned char> der(data, size);
    guarded([&] {
        asn1::Certificate c(der);
        // The certificate keeps exactly the bytes it was decoded from.
        if (c.der().size() != size || (size && std::memcmp(c.der().data(), data, size) != 0))
            std::abort();
        guarded([&] { c.subject().toString(); });
        guarded([&] { c.issuer().toString(); });
        guarded([&] { c.subject().displayName(); });
        guarded([&] { c.issuer().displayName(); });
        guarded([&] { c.basicConstraints(); });
        for (int bit = 0; bit < 10; ++bit) guarded([&] { c.checkUsage(bit); });
        for (std::size_t i = 0; i < c.extensionCount(); ++i) {
            guarded([&] {
                asn1::Extension e = c.extensionAt(i);
                e.extnId.toString(true);
            });
        }
        c.notBefore();
        c.notAfter();
        c.isSelfIssued();
        asn1::Certificate copy = c;
        if (asn1::der::cmp(copy, c) != 0) std::abort();
    });
    guarded([&] {
        buffer::BufferRange<unsigned char> in(der);
        asn1::Tag::decode(in);
        asn1::Length::decode(in);
    });
    // OBJECT IDENTIFIER text of short inputs (huge components cost quadratic time).
    if (size <= 64) guarded([&] { asn1::ObjectIdentifier::fromContents(data, size).toString(); });
    return 0;
}
