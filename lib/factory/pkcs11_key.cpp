#include "factory/pkcs11_key.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <p11-kit/p11-kit.h>
#include <p11-kit/pkcs11.h>
#include <p11-kit/uri.h>

#include "platform/posix_helpers.h"

namespace {

[[noreturn]] void Fail(const std::string& what)
{
    throw std::runtime_error(what);
}

void Check(CK_RV rv, const char* call)
{
    if (rv != CKR_OK)
        Fail(fmt::format("PKCS#11 {}: {}", call, p11_kit_strerror(rv)));
}

std::string P11KitMessage()
{
    const char* message = p11_kit_message();
    return message ? message : "unknown error";
}

// The DER prefix of a PKCS#1 DigestInfo for SHA-256 (RFC 8017, 9.2): what
// the token's raw PKCS#1 v1.5 mechanism (CKM_RSA_PKCS) signs before the
// 32-byte digest. It names the algorithm, so the signature is the one
// libgcrypt's "(flags pkcs1)(hash sha256 ...)" makes.
constexpr char SHA256_DIGEST_INFO_BYTES[] =
    "\x30\x31\x30\x0d\x06\x09\x60\x86\x48\x01\x65\x03\x04\x02\x01\x05\x00\x04\x20";
constexpr std::string_view SHA256_DIGEST_INFO(SHA256_DIGEST_INFO_BYTES, sizeof SHA256_DIGEST_INFO_BYTES - 1);
static_assert(SHA256_DIGEST_INFO.size() == 19);
constexpr std::size_t SHA256_SIZE = 32;

using Uri = std::unique_ptr<P11KitUri, decltype(&p11_kit_uri_free)>;

// The PKCS#11 modules, loaded and initialised: the URI's module-path, or
// every module of p11-kit's configuration. Finalised and released when it
// goes, after the sessions on them.
class Modules {
public:
    explicit Modules(const char* module_path)
    {
        if (!module_path) {
            m_loaded = p11_kit_modules_load_and_initialize(0);
            if (!m_loaded)
                Fail("p11-kit's configured modules: " + P11KitMessage());
            for (CK_FUNCTION_LIST** module = m_loaded; *module; ++module)
                m_list.push_back(*module);
            return;
        }
        m_single = p11_kit_module_load(module_path, 0);
        if (!m_single)
            Fail(fmt::format("module-path {}: {}", module_path, P11KitMessage()));
        if (const CK_RV rv = p11_kit_module_initialize(m_single); rv != CKR_OK) {
            p11_kit_module_release(m_single);
            Fail(fmt::format("module-path {}: {}", module_path, p11_kit_strerror(rv)));
        }
        m_list.push_back(m_single);
    }
    ~Modules()
    {
        if (m_single) {
            p11_kit_module_finalize(m_single);
            p11_kit_module_release(m_single);
        } else {
            p11_kit_modules_finalize_and_release(m_loaded);
        }
    }
    Modules(const Modules&) = delete;
    Modules& operator=(const Modules&) = delete;

    const std::vector<CK_FUNCTION_LIST*>& List() const { return m_list; }

private:
    CK_FUNCTION_LIST** m_loaded = nullptr;
    CK_FUNCTION_LIST* m_single = nullptr;
    std::vector<CK_FUNCTION_LIST*> m_list;
};

// A session on a token, logged out and closed when it goes.
class Session {
public:
    Session(CK_FUNCTION_LIST* module, CK_SLOT_ID slot) : m_module(module)
    {
        Check(module->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &m_handle), "C_OpenSession");
    }
    ~Session()
    {
        if (m_logged_in)
            m_module->C_Logout(m_handle);
        m_module->C_CloseSession(m_handle);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    CK_FUNCTION_LIST& Module() const { return *m_module; }
    CK_SESSION_HANDLE Handle() const { return m_handle; }
    void LoggedIn() { m_logged_in = true; }

private:
    CK_FUNCTION_LIST* m_module;
    CK_SESSION_HANDLE m_handle = 0;
    bool m_logged_in = false;
};

struct Token {
    CK_FUNCTION_LIST* module;
    CK_SLOT_ID slot;
    CK_TOKEN_INFO info;

    std::string Label() const
    {
        return std::string(reinterpret_cast<const char*>(info.label), p11_kit_space_strlen(info.label, sizeof info.label));
    }
};

// The one token of the modules that the URI's module, slot and token
// attributes match.
Token FindToken(const Modules& modules, P11KitUri* uri, const std::string& text)
{
    std::vector<Token> matching;
    std::vector<std::string> present;
    for (CK_FUNCTION_LIST* module : modules.List()) {
        CK_INFO info;
        if (module->C_GetInfo(&info) != CKR_OK || !p11_kit_uri_match_module_info(uri, &info))
            continue;
        CK_ULONG count = 0;
        if (module->C_GetSlotList(CK_TRUE, nullptr, &count) != CKR_OK)
            continue;
        std::vector<CK_SLOT_ID> slots(count);
        if (module->C_GetSlotList(CK_TRUE, slots.data(), &count) != CKR_OK)
            continue;
        slots.resize(count);
        for (const CK_SLOT_ID slot : slots) {
            Token token{module, slot, {}};
            CK_SLOT_INFO slot_info;
            if (module->C_GetSlotInfo(slot, &slot_info) != CKR_OK ||
                module->C_GetTokenInfo(slot, &token.info) != CKR_OK ||
                !(token.info.flags & CKF_TOKEN_INITIALIZED))
                continue;
            present.push_back(fmt::format("'{}'", token.Label()));
            if (p11_kit_uri_match_slot_info(uri, &slot_info) && p11_kit_uri_match_token_info(uri, &token.info))
                matching.push_back(token);
        }
    }
    if (matching.empty())
        Fail(fmt::format("no token matches {} (tokens present: {})", text,
                         present.empty() ? "none" : fmt::format("{}", fmt::join(present, ", "))));
    if (matching.size() > 1)
        Fail(fmt::format("{} tokens match {}: name one with token=LABEL", matching.size(), text));
    return matching.front();
}

// The PIN from the URI's pin-source: "file:PATH", "file:///PATH" or a path;
// one line end at its end is not part of it.
std::string ReadPinSource(const std::string& source)
{
    std::string path = source;
    if (path.starts_with("file://"))
        path.erase(0, 7);
    else if (path.starts_with("file:"))
        path.erase(0, 5);
    else if (const auto colon = path.find(':'); colon != std::string::npos && path.find('/') > colon)
        Fail(fmt::format("pin-source={}: only a file (file:PATH) is read", source));
    if (path.empty() || (source.starts_with("file://") && path[0] != '/'))
        Fail(fmt::format("pin-source={}: not a file on this machine", source));
    std::string pin = corvid::ReadWholeFile(path);
    if (!pin.empty() && pin.back() == '\n')
        pin.pop_back();
    if (!pin.empty() && pin.back() == '\r')
        pin.pop_back();
    return pin;
}

void Login(Session& session, const Token& token, P11KitUri* uri, const PinReader& read_pin)
{
    if (!(token.info.flags & CKF_LOGIN_REQUIRED))
        return;
    CK_RV rv;
    if (token.info.flags & CKF_PROTECTED_AUTHENTICATION_PATH) {
        rv = session.Module().C_Login(session.Handle(), CKU_USER, nullptr, 0);
    } else {
        const char* source = p11_kit_uri_get_pin_source(uri);
        std::string pin = source ? ReadPinSource(source) : read_pin(token.Label());
        rv = session.Module().C_Login(session.Handle(), CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(pin.data()),
                                      pin.size());
        explicit_bzero(pin.data(), pin.size());
    }
    if (rv == CKR_PIN_INCORRECT || rv == CKR_PIN_LEN_RANGE || rv == CKR_PIN_LOCKED || rv == CKR_PIN_EXPIRED)
        Fail(fmt::format("token '{}' refused the PIN: {}", token.Label(), p11_kit_strerror(rv)));
    if (rv != CKR_USER_ALREADY_LOGGED_IN)
        Check(rv, "C_Login");
    session.LoggedIn();
}

// The one private key on the token that the URI's object attributes match.
CK_OBJECT_HANDLE FindPrivateKey(const Session& session, const Token& token, P11KitUri* uri, const std::string& text)
{
    CK_ULONG count = 0;
    const CK_ATTRIBUTE* attributes = p11_kit_uri_get_attributes(uri, &count);
    std::vector<CK_ATTRIBUTE> wanted(attributes, attributes + count);
    CK_OBJECT_CLASS private_key = CKO_PRIVATE_KEY;
    if (const CK_ATTRIBUTE* given = p11_kit_uri_get_attribute(uri, CKA_CLASS)) {
        if (given->ulValueLen != sizeof private_key ||
            std::memcmp(given->pValue, &private_key, sizeof private_key) != 0)
            Fail(fmt::format("{} names no private key: a signing key has type=private", text));
    } else {
        wanted.push_back({CKA_CLASS, &private_key, sizeof private_key});
    }
    CK_FUNCTION_LIST& module = session.Module();
    Check(module.C_FindObjectsInit(session.Handle(), wanted.data(), wanted.size()), "C_FindObjectsInit");
    CK_OBJECT_HANDLE found[2];
    CK_ULONG found_count = 0;
    const CK_RV rv = module.C_FindObjects(session.Handle(), found, 2, &found_count);
    module.C_FindObjectsFinal(session.Handle());
    Check(rv, "C_FindObjects");
    if (found_count == 0)
        Fail(fmt::format("no private key on token '{}' matches {}", token.Label(), text));
    if (found_count > 1)
        Fail(fmt::format("more than one private key on token '{}' matches {}: name one with object= or id=",
                         token.Label(), text));
    return found[0];
}

// An attribute's value, of whatever length.
std::string Attribute(const Session& session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
{
    CK_ATTRIBUTE attribute{type, nullptr, 0};
    Check(session.Module().C_GetAttributeValue(session.Handle(), object, &attribute, 1), "C_GetAttributeValue");
    std::string value(attribute.ulValueLen, '\0');
    attribute.pValue = value.data();
    Check(session.Module().C_GetAttributeValue(session.Handle(), object, &attribute, 1), "C_GetAttributeValue");
    value.resize(attribute.ulValueLen);
    return value;
}

class Pkcs11Key final : public SigningKey {
public:
    Pkcs11Key(std::unique_ptr<Modules> modules, std::unique_ptr<Session> session, CK_OBJECT_HANDLE key,
              std::string modulus)
        : m_modules(std::move(modules)), m_session(std::move(session)), m_key(key), m_modulus(std::move(modulus))
    {
    }

    std::string Modulus() const override { return m_modulus; }

    // The token signs the DigestInfo with raw PKCS#1 v1.5 (CKM_RSA_PKCS):
    // the digest may be any 32 bytes (the SRB's is an HMAC), which a
    // mechanism that hashes the message itself could not sign.
    std::string Sign(int algorithm, std::string_view digest) const override
    {
        if (algorithm != GCRY_MD_SHA256 || digest.size() != SHA256_SIZE)
            throw std::invalid_argument("a token key signs SHA-256 digests only");
        std::string data(SHA256_DIGEST_INFO);
        data.append(digest);
        CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
        CK_FUNCTION_LIST& module = m_session->Module();
        const CK_SESSION_HANDLE session = m_session->Handle();
        Check(module.C_SignInit(session, &mechanism, m_key), "C_SignInit");
        auto* bytes = reinterpret_cast<CK_BYTE*>(data.data());
        CK_ULONG length = 0;
        Check(module.C_Sign(session, bytes, data.size(), nullptr, &length), "C_Sign");
        std::string signature(length, '\0');
        Check(module.C_Sign(session, bytes, data.size(), reinterpret_cast<CK_BYTE*>(signature.data()), &length),
              "C_Sign");
        signature.resize(length);
        // Padded to the modulus's length, as libgcrypt's signatures are.
        if (signature.size() < m_modulus.size())
            signature.insert(0, m_modulus.size() - signature.size(), '\0');
        return signature;
    }

private:
    std::unique_ptr<Modules> m_modules;  // goes last,
    std::unique_ptr<Session> m_session;  // after the session on it
    CK_OBJECT_HANDLE m_key;
    std::string m_modulus;
};

} // namespace

bool IsPkcs11Uri(std::string_view text)
{
    return text.starts_with(P11_KIT_URI_SCHEME ":");
}

std::unique_ptr<SigningKey> OpenPkcs11Key(const std::string& text, const PinReader& read_pin)
{
    const Uri uri(p11_kit_uri_new(), &p11_kit_uri_free);
    if (const int result = p11_kit_uri_parse(text.c_str(), P11_KIT_URI_FOR_ANY, uri.get());
        result != P11_KIT_URI_OK)
        Fail(fmt::format("{}: {}", text, p11_kit_uri_message(result)));
    if (p11_kit_uri_any_unrecognized(uri.get()))
        Fail(fmt::format("{}: an attribute that p11-kit does not know", text));
    if (p11_kit_uri_get_pin_value(uri.get()))
        Fail(fmt::format("{}: pin-value would put the PIN on the command line: use pin-source=file:PATH, "
                         "or give the PIN on standard input",
                         text));

    auto modules = std::make_unique<Modules>(p11_kit_uri_get_module_path(uri.get()));
    const Token token = FindToken(*modules, uri.get(), text);
    auto session = std::make_unique<Session>(token.module, token.slot);
    Login(*session, token, uri.get(), read_pin);
    const CK_OBJECT_HANDLE key = FindPrivateKey(*session, token, uri.get(), text);

    const std::string type = Attribute(*session, key, CKA_KEY_TYPE);
    CK_KEY_TYPE rsa = CKK_RSA;
    if (type.size() != sizeof rsa || std::memcmp(type.data(), &rsa, sizeof rsa) != 0)
        Fail(fmt::format("{} is not an RSA key", text));
    std::string modulus = Attribute(*session, key, CKA_MODULUS);
    modulus.erase(0, std::min(modulus.find_first_not_of('\0'), modulus.size()));
    return std::make_unique<Pkcs11Key>(std::move(modules), std::move(session), key, std::move(modulus));
}
