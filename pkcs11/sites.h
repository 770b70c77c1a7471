// Source texts and lines of the Cryptoki client's events. Callers and logs key on them, so they are
// fixed here rather than taken from the compiler.
#pragma once

namespace pkcs11 {
namespace sites {

struct Site {
    const wchar_t* file;
    int line;
};

// Attribute sets.
constexpr Site kAttributeTypeTwice{L"pkcs11\\ckattributes", 156};  // CKR_TEMPLATE_INCONSISTENT
constexpr Site kAttributeNoBuffer{L"pkcs11\\ckattributes", 162};   // CKR_ATTRIBUTE_VALUE_INVALID
constexpr Site kAttributeNotInSet{L"pkcs11\\ckattributes", 315};   // CKR_ATTRIBUTE_TYPE_INVALID

// Module loading.
constexpr Site kModuleOpen{L"pkcs11\\cklibrary", 40};
constexpr Site kModuleNoFunctionList{L"pkcs11\\cklibrary", 41};
constexpr Site kGetFunctionList{L"pkcs11\\cklibrary", 45};
constexpr Site kInitialize{L"pkcs11\\cklibrary", 52};

constexpr Site kGetSlotList{L"pkcs11\\ckslots", 30};
constexpr Site kGetTokenInfo{L"pkcs11\\cktoken", 25};
constexpr Site kOpenSession{L"pkcs11\\cksession", 30};
constexpr Site kLogin{L"pkcs11\\cksession", 45};
constexpr Site kCloseSession{L"pkcs11\\cksession", 60};
constexpr Site kGetAttributeSizes{L"pkcs11\\ckobject", 30};
constexpr Site kGetAttributeValues{L"pkcs11\\ckobject", 40};
constexpr Site kFindObjectsInit{L"pkcs11\\ckfinder", 30};
constexpr Site kFindObjects{L"pkcs11\\ckfinder", 45};
constexpr Site kFindObjectsFinal{L"pkcs11\\ckfinder", 60};

}  // namespace sites
}  // namespace pkcs11
