#include "support/testsupport.h"

using buffer::Buffer;
using buffer::BufferRange;
using buffer::Utf8Decoder;
using buffer::Utf8Encoder;
using nebratest::bytes;

namespace {

std::vector<unsigned> decodeUnits(const Buffer<unsigned char>& in) {
    Buffer<wchar_t> out = Utf8Decoder::decode(in);
    std::vector<unsigned> units;
    for (wchar_t c : out) units.push_back(static_cast<unsigned>(c));
    return units;
}

void expectDecodeError(const Buffer<unsigned char>& in, int line, bool withParams) {
    auto e = nebratest::expectEvent<buffer::BufferError_InvalidEncodingUnit>(
        [&] { Utf8Decoder::decode(in); });
    nebratest::expectSite(e, "BufferError_InvalidEncodingUnit", "util\\include\\bufcodecs", line,
                          withParams ? "CODEC=Utf8Decoder;CAUSE=BadUft8Encoding" : "");
}

}  // namespace

TEST(Utf8Decoder, AcceptsLenientlyAndRejectsWithLineAndCause) {
    EXPECT_EQ(decodeUnits(bytes({0xC3, 0xA9})), std::vector<unsigned>{0xE9});
    EXPECT_EQ(decodeUnits(bytes({0xF0, 0x9F, 0x98, 0x80})), std::vector<unsigned>{0xF600});
    EXPECT_EQ(decodeUnits(bytes({0x80, 0x81})), std::vector<unsigned>{0x0001});
    EXPECT_EQ(decodeUnits(bytes({0xC0, 0x80})), std::vector<unsigned>{0x0000});  // overlong
    // Five- and six-byte forms (leads F8-FB, FC-FD), kept to their low 16 bits.
    EXPECT_EQ(decodeUnits(bytes({0xF8, 0x80, 0x80, 0x81, 0x82, 0x41})),
              (std::vector<unsigned>{0x42, 0x41}));
    EXPECT_EQ(decodeUnits(bytes({0xFD, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF})),
              std::vector<unsigned>{0xFFFF});
    EXPECT_EQ(decodeUnits(bytes({0x41, 0xE2, 0x82, 0xAC, 0x42})),
              (std::vector<unsigned>{0x41, 0x20AC, 0x42}));
    EXPECT_TRUE(decodeUnits(Buffer<unsigned char>()).empty());
    expectDecodeError(bytes({0x80, 0x41}), 424, true);
    expectDecodeError(bytes({0xC3}), 419, true);
    expectDecodeError(bytes({0xC3, 0x41}), 424, true);
    expectDecodeError(bytes({0xFC, 0x80, 0x80, 0x80, 0x80}), 419, true);
    expectDecodeError(bytes({0xFE}), 451, false);
    expectDecodeError(bytes({0x41, 0xFF}), 451, false);
}

TEST(Utf8Decoder, StepConsumesOneCharacterAndKeepsEarlierOutput) {
    Buffer<unsigned char> in = bytes({0x61, 0xC3, 0xA9, 0xC3});
    BufferRange<unsigned char> r(in);
    Buffer<wchar_t> out;
    EXPECT_TRUE(Utf8Decoder::step(r, out));
    EXPECT_TRUE(Utf8Decoder::step(r, out));
    EXPECT_EQ(out.size(), 2u);
    EXPECT_EQ(r.size(), 1u);
    EXPECT_THROW(Utf8Decoder::step(r, out), buffer::BufferError_InvalidEncodingUnit);
    EXPECT_EQ(out.size(), 2u);  // what was appended before the error stays

    BufferRange<unsigned char> none;
    EXPECT_FALSE(Utf8Decoder::step(none, out));
}

TEST(Utf8Encoder, EncodesEachUnitAlone) {
    auto enc = [](std::initializer_list<unsigned> units) {
        Buffer<wchar_t> in;
        for (unsigned u : units) in.append(static_cast<wchar_t>(u));
        Buffer<unsigned char> out = Utf8Encoder::encode(in);
        return std::vector<unsigned>(out.begin(), out.end());
    };
    EXPECT_EQ(enc({0xE9}), (std::vector<unsigned>{0xC3, 0xA9}));
    EXPECT_EQ(enc({0x20AC}), (std::vector<unsigned>{0xE2, 0x82, 0xAC}));
    EXPECT_EQ(enc({0xD83D}), (std::vector<unsigned>{0xED, 0xA0, 0xBD}));
    EXPECT_EQ(enc({0x41, 0x7FF}), (std::vector<unsigned>{0x41, 0xDF, 0xBF}));
    // A surrogate pair is not joined: two three-byte forms.
    EXPECT_EQ(enc({0xD83D, 0xDE00}).size(), 6u);
    // Round trip of every 16-bit unit through the decoder.
    Buffer<wchar_t> all;
    for (unsigned u = 0; u <= 0xFFFF; ++u) all.append(static_cast<wchar_t>(u));
    Buffer<wchar_t> back = Utf8Decoder::decode(Utf8Encoder::encode(all));
    EXPECT_EQ(back, all);
}

TEST(HexAndLower, HexIsUpperCaseTwoDigitsPerByteAndLowerIsPerUnit) {
    EXPECT_EQ(nebratest::u8(buffer::hex(bytes({0x00, 0xAB, 0xFF}))), "00ABFF");
    Buffer<wchar_t> out(L"keep");
    buffer::hexEncode(BufferRange<unsigned char>(), out);
    EXPECT_EQ(nebratest::u8(out), "keep");
    EXPECT_EQ(buffer::toLower(Buffer<wchar_t>(L"Prov-\u00C9\u0416Z")),
              Buffer<wchar_t>(L"prov-\u00E9\u0436z"));
}
