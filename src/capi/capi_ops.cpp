// The C interface: tokens, the sync engine, stores, providers and files, each call a thin shell
// over the library's classes.

#include "nebralib/buffer/codecs.h"
#include "nebralib/certstorehelper.h"
#include "nebralib/codeverifier.h"
#include "nebralib/mspermissions.h"
#include "nebralib/syncengine.h"
#include "nebralib/tokensession.h"
#include "nebralib/tokenstore.h"
#include "platform/security.h"
#include "src/capi/handles.h"

using namespace nebracapi;
using namespace pkcs11::certstoreupdater;

namespace {

struct Token : Object {
    std::unique_ptr<TokenSession> session;
};

std::shared_ptr<Token> tokenOf(nebra_token* t) {
    auto token =
        std::static_pointer_cast<Token>(find(Kind::Token, reinterpret_cast<std::uintptr_t>(t)));
    if (!token)
        throw Refusal{NEBRA_E_HANDLE,
                      "the token is not a live handle (freed already, or never handed out)"};
    return token;
}

template <class T>
void needOut(T** out, const char* what) {
    if (!out) throw Refusal{NEBRA_E_ARGUMENT, std::string(what) + " is NULL"};
    *out = nullptr;
}

std::string u8(const buffer::Buffer<wchar_t>& b) {
    return buffer::utf8FromUtf16(b.data(), b.size());
}

std::string bytes(const buffer::Buffer<unsigned char>& b) {
    return std::string(reinterpret_cast<const char*>(b.data()), b.size());
}

Row tokenRow(const pkcs11::CkTokenInfo& info) {
    const TokenIdentity id = TokenIdentity::of(info);
    return {{NEBRA_FIELD_URI, id.uri()},
            {NEBRA_FIELD_LABEL, utf8(id.label)},
            {NEBRA_FIELD_MANUFACTURER, utf8(id.manufacturer)},
            {NEBRA_FIELD_MODEL, utf8(id.model)},
            {NEBRA_FIELD_SERIAL, utf8(id.serial)},
            {NEBRA_FIELD_FLAGS, std::to_string(info.flags)}};
}

// The fields every listing of a certificate has.
Row certRow(const asn1::Certificate& c) {
    return {{NEBRA_FIELD_SUBJECT, u8(c.subject().toString())},
            {NEBRA_FIELD_ISSUER, u8(c.issuer().toString())},
            {NEBRA_FIELD_SERIAL,
             buffer::toUtf8(buffer::hex(c.serialNumber().begin(), c.serialNumber().size()))},
            {NEBRA_FIELD_NOT_BEFORE, u8(c.notBefore())},
            {NEBRA_FIELD_NOT_AFTER, u8(c.notAfter())},
            {NEBRA_FIELD_DER, bytes(c.der())}};
}

// Sync and release results: one row per certificate met, then one per store.
std::shared_ptr<List> resultRows(const std::vector<StoreResult>& results) {
    auto list = std::make_shared<List>();
    for (const StoreResult& r : results) {
        const struct {
            const char* name;
            const std::vector<SyncChange>& changes;
        } kinds[] = {{"added", r.added},
                     {"unchanged", r.unchanged},
                     {"keptUnbound", r.kept},
                     {"removed", r.removed},
                     {"keptForOtherTokens", r.unlinked},
                     {"rebound", r.rebound},
                     {"sharedWithOtherTokens", r.shared},
                     {"unreadableTokenRecord", r.unreadable}};
        for (const auto& kind : kinds)
            for (const SyncChange& c : kind.changes)
                list->rows.push_back({{NEBRA_FIELD_STORE, utf8(r.store)},
                                      {NEBRA_FIELD_GROUP, groupName(r.group)},
                                      {NEBRA_FIELD_CHANGE, kind.name},
                                      {NEBRA_FIELD_KEY, utf8(c.container)},
                                      {NEBRA_FIELD_LABEL, utf8(c.label)},
                                      {NEBRA_FIELD_SUBJECT, utf8(c.subject)},
                                      {NEBRA_FIELD_NAME, utf8(c.name)}});
    }
    for (const StoreResult& r : results)
        list->rows.push_back({{NEBRA_FIELD_STORE, utf8(r.store)},
                              {NEBRA_FIELD_GROUP, groupName(r.group)},
                              {NEBRA_FIELD_CHANGE, "store"},
                              {NEBRA_FIELD_NOTE, r.skipped}});
    return list;
}

// Runs a sync or release that fills `results` as it goes: the rows are handed out whether it
// ends or fails, so that a failure still says what was done before it.
template <class Work>
nebra_status* withResults(nebra_list** result, Work work) {
    return guarded([&]() -> nebra_status* {
        needOut(result, "result");
        std::vector<StoreResult> results;
        nebra_status* status = guarded([&]() -> nebra_status* {
            work(results);
            return nullptr;
        });
        *result = publish(resultRows(results));
        return status;
    });
}

}  // namespace

extern "C" {

nebra_status* nebra_tokens(const char* module, nebra_list** tokens) {
    return guarded([&]() -> nebra_status* {
        needOut(tokens, "tokens");
        const TokenChoice choice = TokenChoice::parse(text(module, "module"));
        pkcs11::Libraries& registry = pkcs11::Libraries::instance();
        pkcs11::CkLibrary lib = registry.load(choice.module);
        struct Unload {
            pkcs11::Libraries& r;
            const pkcs11::CkLibrary& lib;
            ~Unload() { r.unload(lib); }
        } unload{registry, lib};
        auto list = std::make_shared<List>();
        pkcs11::CkSlots slots(lib, true);
        for (const pkcs11::CkSlot& slot : slots.entries()) {
            pkcs11::CkTokenInfo info = pkcs11::CkToken(slot).info();
            if (!choice.byUri || choice.uri.matches(info)) list->rows.push_back(tokenRow(info));
        }
        *tokens = publish(list);
        return nullptr;
    });
}

nebra_status* nebra_token_open(const char* module, nebra_token** token) {
    return guarded([&]() -> nebra_status* {
        needOut(token, "token");
        auto t = std::make_shared<Token>();
        t->session.reset(new TokenSession(TokenChoice::parse(text(module, "module"))));
        *token = reinterpret_cast<nebra_token*>(add(Kind::Token, t));
        return nullptr;
    });
}

nebra_status* nebra_token_info(nebra_token* token, nebra_list** info) {
    return guarded([&]() -> nebra_status* {
        needOut(info, "info");
        auto list = std::make_shared<List>();
        list->rows.push_back(tokenRow(tokenOf(token)->session->tokenInfo()));
        *info = publish(list);
        return nullptr;
    });
}

nebra_status* nebra_token_login(nebra_token* token, const uint8_t* pin, uint64_t pin_len) {
    return guarded([&]() -> nebra_status* {
        std::shared_ptr<Token> t = tokenOf(token);
        if (!pin && pin_len) return fail(NEBRA_E_ARGUMENT, "pin is NULL but pin_len is not 0");
        if (pin && !pin_len)
            return fail(NEBRA_E_ARGUMENT,
                        "the PIN is empty; an empty PIN is never sent to a token");
        if (!pin) {
            t->session->loginProtected();
        } else {
            t->session->login(pin, static_cast<std::size_t>(pin_len), t->session->tokenInfo());
        }
        return nullptr;
    });
}

nebra_status* nebra_token_harvest(nebra_token* token, nebra_list** certs) {
    return guarded([&]() -> nebra_status* {
        needOut(certs, "certs");
        auto all = tokenOf(token)->session->getAllCerts();
        auto list = std::make_shared<List>();
        for (CertGroup g :
             {CertGroup::WithPrivateKey, CertGroup::Root, CertGroup::Ca, CertGroup::Other})
            for (const auto& entry : groupOf(*all, g)) {
                Row row = certRow(entry.second.certificate);
                row[NEBRA_FIELD_GROUP] = groupName(g);
                row[NEBRA_FIELD_KEY] = u8(entry.first);
                row[NEBRA_FIELD_ID] = bytes(entry.second.id);
                row[NEBRA_FIELD_LABEL] = u8(entry.second.label);
                list->rows.push_back(std::move(row));
            }
        *certs = publish(list);
        return nullptr;
    });
}

nebra_status* nebra_token_free(nebra_token* token) {
    if (!token || remove(Kind::Token, reinterpret_cast<std::uintptr_t>(token))) return nullptr;
    return fail(NEBRA_E_HANDLE,
                "the token is not a live handle (freed already, or never handed out)");
}

nebra_status* nebra_sync(nebra_token* token, const char* csp, const char* const stores[4],
                         uint32_t flags, nebra_list** result) {
    return withResults(result, [&](std::vector<StoreResult>& results) {
        std::shared_ptr<Token> t = tokenOf(token);
        SyncOptions o;
        o.csp = wide(csp, nullptr, "csp");
        if (o.csp.empty()) throw Refusal{NEBRA_E_ARGUMENT, "csp is empty"};
        o.prune = (flags & NEBRA_SYNC_PRUNE) != 0;
        o.dryRun = (flags & NEBRA_SYNC_DRY_RUN) != 0;
        o.adopt = (flags & NEBRA_SYNC_ADOPT) != 0;
        if (flags & ~(NEBRA_SYNC_PRUNE | NEBRA_SYNC_DRY_RUN | NEBRA_SYNC_ADOPT))
            throw Refusal{NEBRA_E_ARGUMENT, "flags has bits that mean nothing"};
        std::vector<StoreTarget> targets;
        const CertGroup groups[] = {CertGroup::WithPrivateKey, CertGroup::Root, CertGroup::Ca,
                                    CertGroup::Other};
        for (int g = 0; g < 4; ++g) {
            const char* name = stores ? stores[g] : nullptr;
            if (!name && g != NEBRA_GROUP_WITH_KEY) continue;
            StoreTarget target{wide(name, L"MY", "a store name"), groups[g],
                               g == NEBRA_GROUP_WITH_KEY};
            if (target.store.empty()) throw Refusal{NEBRA_E_ARGUMENT, "a store name is empty"};
            targets.push_back(target);
        }
        SyncEngine(o).sync(*t->session, targets, results);
    });
}

nebra_status* nebra_remove_token(const char* store, const char* csp, const char* token_uri,
                                 nebra_list** result) {
    return withResults(result, [&](std::vector<StoreResult>& results) {
        SyncOptions o;
        o.csp = wide(csp, nullptr, "csp");
        if (o.csp.empty()) throw Refusal{NEBRA_E_ARGUMENT, "csp is empty"};
        const Pkcs11Uri uri = Pkcs11Uri::parse(text(token_uri, "token_uri"));
        if (uri.path().empty())
            throw Refusal{NEBRA_E_ARGUMENT,
                          "the URI names no token: give at least one of token, serial, "
                          "manufacturer, model"};
        results.emplace_back();
        SyncEngine(o).release(
            {wide(store, L"MY", "store"), CertGroup::WithPrivateKey, false},
            [&](const TokenIdentity& id) { return uri.matches(id); }, results.back());
    });
}

nebra_status* nebra_remove_provider(const char* store, const char* csp, uint64_t* removed) {
    return guarded([&]() -> nebra_status* {
        if (removed) *removed = 0;
        const std::wstring provider = wide(csp, nullptr, "csp");
        if (provider.empty()) return fail(NEBRA_E_ARGUMENT, "csp is empty");
        const std::wstring name = wide(store, L"MY", "store");
        StoreHold held(name);  // a sync of the same store waits
        CertStoreHelper helper(name);
        std::vector<TokenStore::TokenCertificate> before =
            TokenStore(helper).listTokenCertificates(provider);
        helper.deleteCspCertificates(provider, false);
        if (removed)
            for (const auto& tc : before)
                *removed += helper.findCertificate(tc.certificate) ? 0 : 1;
        return nullptr;
    });
}

nebra_status* nebra_store_list(const char* store, const char* csp, nebra_list** certs) {
    return guarded([&]() -> nebra_status* {
        needOut(certs, "certs");
        const std::wstring provider = wide(csp, L"", "csp");
        CertStoreHelper helper(wide(store, L"MY", "store"));
        using Entry = TokenStore::TokenCertificate;
        const std::vector<Entry> found = TokenStore(helper).listBoundCertificates(provider);
        auto list = std::make_shared<List>();
        for (const Entry& e : found) {
            Row row = certRow(e.certificate);
            row[NEBRA_FIELD_KEY] = utf8(e.container);
            std::string tokens;
            for (const TokenIdentity& id : e.tokens)
                tokens += (tokens.empty() ? "" : "\n") + id.uri();
            row[NEBRA_FIELD_TOKENS] = tokens;
            row[NEBRA_FIELD_UNREADABLE] = e.unreadable ? "1" : "0";
            list->rows.push_back(std::move(row));
        }
        *certs = publish(list);
        return nullptr;
    });
}

nebra_status* nebra_providers(nebra_list** providers) {
    return guarded([&]() -> nebra_status* {
        needOut(providers, "providers");
        auto list = std::make_shared<List>();
        std::unique_ptr<std::vector<std::wstring>> names = CertStoreHelper::listCSPs();
        for (const std::wstring& name : *names)
            list->rows.push_back({{NEBRA_FIELD_NAME, utf8(name)}});
        *providers = publish(list);
        return nullptr;
    });
}

nebra_status* nebra_verify_file(const char* path) {
    return guarded([&]() -> nebra_status* {
        buffer::Buffer<wchar_t> wide_path(wide(path, nullptr, "path"));
        CodeVerifier::verify(wide_path);
        return nullptr;
    });
}

nebra_status* nebra_grant_app_access(const char* path, int32_t recursive) {
    return guarded([&]() -> nebra_status* {
        boost::filesystem::path p = platform::security::pathFromUtf8(text(path, "path"));
        AnyPackageSid sid;
        if (recursive)
            MSPermissionsUtils::addPermissionsRecursive(p, sid);
        else
            MSPermissionsUtils::addPermissions(p, sid);
        return nullptr;
    });
}

nebra_status* nebra_has_app_access(const char* path, int32_t* granted) {
    return guarded([&]() -> nebra_status* {
        if (!granted) return fail(NEBRA_E_ARGUMENT, "granted is NULL");
        *granted = 0;
        SecurityDescriptorDacl descriptor(
            platform::security::widePath(platform::security::pathFromUtf8(text(path, "path"))));
        AnyPackageSid sid;
        *granted = MSPermissionsUtils::hasPermissions(descriptor, sid) ? 1 : 0;
        return nullptr;
    });
}

}  // extern "C"
