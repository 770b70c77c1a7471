// The ASN.1 error events: asn1::TarnError -> TarnError_Asn1 -> one leaf per kind of failure.
// Every event carries its class name, the source text and line of its raise site (the table in
// asn1::sites) and named wide-text parameters, "CAUSE" first where there is one.
#pragma once

#include <cstdint>

#include "nebralib/asn1/tag.h"
#include "nebralib/buffer/buffer.h"
#include "nebralib/events/genericevent.h"

namespace asn1 {

NEBRA_DEFINE_EVENT_FAMILY(TarnError, orvo::GenericEvent)
NEBRA_DEFINE_EVENT_FAMILY(TarnError_Asn1, TarnError)

// Input that does not decode. Besides its parameters it can hold the input it was decoding and
// the offset of the value that failed (setStream), for diagnostics; these take no part in equal().
class NEBRALIB_EXPORT TarnError_Asn1_Decode : public TarnError_Asn1 {
public:
    TarnError_Asn1_Decode(const buffer::Buffer<wchar_t>& file, int line);
    ~TarnError_Asn1_Decode() override;
    TarnError_Asn1_Decode* clone() const override { return new TarnError_Asn1_Decode(*this); }
    [[noreturn]] void raise() const override { throw *this; }

    TarnError_Asn1_Decode& setParam(const buffer::Buffer<wchar_t>& key,
                                    const buffer::Buffer<wchar_t>& value) {
        orvo::GenericEvent::setParam(key, value);
        return *this;
    }
    TarnError_Asn1_Decode& setParam(const wchar_t* key, const buffer::Buffer<wchar_t>& value) {
        return setParam(buffer::Buffer<wchar_t>(key), value);
    }
    TarnError_Asn1_Decode& setParam(const wchar_t* key, const wchar_t* value) {
        return setParam(buffer::Buffer<wchar_t>(key), buffer::Buffer<wchar_t>(value));
    }
    // Attaches the input being decoded and the offset of the failing value in it.
    TarnError_Asn1_Decode& setStream(const buffer::Buffer<unsigned char>& input,
                                     std::uint64_t position);
    // Sets "EXPECTED_TAG" and "FOUND_TAG" (Tag::toString; "none" where nothing was left to read).
    TarnError_Asn1_Decode& setCause(const Tag& expected, const Tag& found);
    TarnError_Asn1_Decode& setCause(const buffer::Buffer<wchar_t>& expected,
                                    const buffer::Buffer<wchar_t>& found);

    const buffer::Buffer<unsigned char>& stream() const { return stream_; }
    std::uint64_t streamPosition() const { return position_; }

private:
    buffer::Buffer<unsigned char> stream_;
    std::uint64_t position_ = 0;
};

NEBRA_DEFINE_EVENT(TarnError_Asn1_Encode, TarnError_Asn1)
NEBRA_DEFINE_EVENT(TarnError_Asn1_InternalError, TarnError_Asn1)
NEBRA_DEFINE_EVENT(TarnError_Asn1_InvalidCall, TarnError_Asn1)
NEBRA_DEFINE_EVENT(TarnError_Asn1_InvalidItemIndex, TarnError_Asn1)
NEBRA_DEFINE_EVENT(TarnError_Asn1_InvalidStreamOp, TarnError_Asn1)
NEBRA_DEFINE_EVENT(TarnError_Asn1_InvalidTag, TarnError_Asn1)
NEBRA_DEFINE_EVENT(TarnError_Asn1_NoDefaultValue, TarnError_Asn1)
NEBRA_DEFINE_EVENT(TarnError_Asn1_RangeViolation, TarnError_Asn1)
NEBRA_DEFINE_EVENT(TarnError_Asn1_SettingValue, TarnError_Asn1)
NEBRA_DEFINE_EVENT(TarnError_Asn1_UnsetValue, TarnError_Asn1)
NEBRA_DEFINE_EVENT(TarnError_Asn1_ObjectMissing, TarnError_Asn1)

// Source texts and lines of the raise sites. Callers and logs key on them; they never change.
namespace sites {

// Source texts.
constexpr const wchar_t* kCodecs = L"tarn/codecs";
constexpr const wchar_t* kBerDecoder = L"tarn/codderberdec";
constexpr const wchar_t* kDerDecoder = L"tarn\\codderdec";
constexpr const wchar_t* kEncoder = L"tarn/codderenc";
constexpr const wchar_t* kTagLengths = L"tarn/taglengths";
constexpr const wchar_t* kObjectIdentifier = L"tarn/asn1objid";
constexpr const wchar_t* kInfFrame = L"tarn/infframe";
constexpr const wchar_t* kSelAttrTypes = L"tarn/selattrtypes";
constexpr const wchar_t* kList = L"tarn/asn1list";
constexpr const wchar_t* kStream = L"tarn/ioasn";
constexpr const wchar_t* kRange = L"tarn/asn1range";
constexpr const wchar_t* kStruct = L"tarn/asn1struct";
constexpr const wchar_t* kBase = L"tarn/asn1base";
constexpr const wchar_t* kString = L"tarn/asn1string";
constexpr const wchar_t* kAuthFrame = L"tarn/authframe";

// TarnError_Asn1_Decode, "tarn/codecs": "NotAllBufferConsumed", "CONSUMED_BYTES", "BUFFER_SIZE".
constexpr int kNotAllBufferConsumed = 341;
// TarnError_Asn1_Decode, "tarn/codderberdec". Parameters "CAUSE" (where given), then
// "TYPE_NAME" and "FIELD_NAME" of the field being read, then "EXPECTED_TAG" and "FOUND_TAG".
constexpr int kTagMismatch = 136;                    // "ValueDoesNotMatch": class or number differ
constexpr int kExplicitWithoutConstructedBit = 143;  // "ExplicitTagWithoutConstructorBit"
constexpr int kChoiceMismatch = 152;                 // no CAUSE: no alternative of a CHOICE matches
constexpr int kConstructedBitMismatch = 157;  // "ValueDoesNotMatch": only the constructed bit
// TarnError_Asn1_Decode, "tarn\codderdec".
constexpr int kDefaultValuePresent = 46;   // "DefaultValuePresentInDEREncoding"
constexpr int kInvalidBoolean = 61;        // "InvalidBooleanEncoding"
constexpr int kInvalidInteger = 70;        // "InvalidIntegerEncoding"
constexpr int kInvalidBitString = 79;      // "InvalidBitStringEncoding"
constexpr int kInvalidObjectId = 88;       // "InvalidObjectIdentifierEncoding"
constexpr int kInvalidTime = 97;           // "InvalidTimeEncoding"
constexpr int kInvalidStringLength = 106;  // "InvalidStringLength" (BMPString, UniversalString)
constexpr int kNonMinimalLength = 112;     // "NonMinimalLengthEncoding"
constexpr int kUndefinedLength = 116;      // "UndefinedLengthPresentInDerEncoding"
constexpr int kLengthOutOfRange = 119;     // "LengthOutOfRange"
constexpr int kEndOfContents = 121;        // "UnexpectedEndOfContents" (tag 0 in DER)
constexpr int kConstructedEnd = 125;       // "EXPECTED_POSITION", "DECODED_BYTES" (no CAUSE)
constexpr int kNestingTooDeep = 131;       // "NestingTooDeep"
// "tarn/taglengths".
constexpr int kTruncatedTagOrLength = 131;  // Decode: "UnexpectedEndOfBuffer"
constexpr int kNonMinimalTag = 139;         // Decode: "NonMinimalTagEncoding"
constexpr int kUnknownClass = 148;          // Encode: "UnknwonClass", "CLASS"
constexpr int kInvalidTagNumber = 161;      // InvalidTag: "NUMBER"
// TarnError_Asn1_Encode, "tarn/codderenc": "FIELD_NAME" of an unset mandatory field.
constexpr int kEncodeUnsetField = 54;
// TarnError_Asn1_SettingValue, "tarn/asn1objid": "CAUSE", "COMPONENT" (or "TEXT").
constexpr int kOidInvalidText = 228;          // "ObjectIdentifier_InvalidText", "TEXT"
constexpr int kOidLessThan2Components = 235;  // "ObjectIdentifier_LessThan2Components"
constexpr int kOidInvalidFirst = 246;         // "ObjectIdentifier_InvalidFirstComponent"
constexpr int kOidInvalidSecond = 249;        // "ObjectIdentifier_InvalidSecondComponent"
// TarnError_Asn1_SettingValue between values of different classes ("tarn/asn1base") and between
// structures ("tarn/asn1struct").
constexpr int kSettingClassMismatch = 174;  // "SOURCE_CLASS", "TARGET_CLASS"
constexpr int kSettingStructMismatch =
    87;  // "FieldsOfStructuredTypeNotMatch"/"NumberOfFieldsDiffer"
// TarnError_Asn1_UnsetValue.
constexpr int kUnsetRdnSequence = 342;  // "tarn/infframe", "TYPE" = "RDNSequence"
constexpr int kUnsetValue = 47;         // "tarn/asn1base", "TYPE" of a plain value
constexpr int kUnsetField = 54;         // "tarn/asn1base", "FIELD_NAME"
// TarnError_Asn1_InternalError.
constexpr int kInvalidDirectoryStringComponent = 133;  // "tarn/selattrtypes"
constexpr int kMissingStringType = 318;                // "tarn/infframe", "MissingStringType"
// TarnError_Asn1_InvalidCall, "tarn/asn1string": "StringWihtoutContent".
constexpr int kStringWithoutContent = 364;
// TarnError_Asn1_InvalidItemIndex, "tarn/asn1list": "INDEX", "CURRENT_SIZE".
constexpr int kInvalidItemIndex = 107;
// TarnError_Asn1_InvalidStreamOp, "tarn/ioasn": "FUNCTION".
constexpr int kImemBuf = 219;           // "imem::buf()"
constexpr int kOmemUndefinedBuf = 275;  // "omemUndefined::buf()"
// TarnError_Asn1_NoDefaultValue, "tarn/asn1struct": "FIELD_NAME", "TYPE_NAME".
constexpr int kNoDefaultValue = 98;
// TarnError_Asn1_RangeViolation, "tarn/asn1range": "VALUE", then the bound.
constexpr int kAboveMaximum = 58;  // "MAXIMUM_VALUE"
constexpr int kBelowMinimum = 65;  // "MINIMUN_VALUE"
// TarnError_Asn1_ObjectMissing, "tarn/authframe": "EXTENSION" = dotted OID.
constexpr int kObjectMissing = 360;

}  // namespace sites
}  // namespace asn1
