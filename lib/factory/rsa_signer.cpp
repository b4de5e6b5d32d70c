#include "factory/rsa_signer.h"

#include <bit>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include <fmt/format.h>

#include "factory/pkcs11_key.h"
#include "hardware/signature_verifier.h"
#include "platform/base64.h"
#include "platform/posix_helpers.h"

namespace {

const bool s_gcrypt = (InitialiseGcrypt(), true);

[[noreturn]] void ThrowBadKey(const std::string& reason)
{
    throw std::runtime_error("Invalid RSA private key: " + reason);
}

// One DER element: its tag and the bytes of its content.
struct DerElement {
    std::uint8_t tag;
    std::string_view content;
};

constexpr std::uint8_t DER_INTEGER = 0x02;
constexpr std::uint8_t DER_OCTET_STRING = 0x04;
constexpr std::uint8_t DER_OBJECT_IDENTIFIER = 0x06;
constexpr std::uint8_t DER_SEQUENCE = 0x30;

// The DER encoding of the OID 1.2.840.113549.1.1.1 (rsaEncryption).
constexpr std::string_view RSA_ENCRYPTION_OID = "\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01";

// Reads DER elements one after another from a byte range.
class DerReader {
public:
    explicit DerReader(std::string_view bytes) : m_rest(bytes) {}

    bool AtEnd() const { return m_rest.empty(); }

    DerElement Next(std::uint8_t expected_tag)
    {
        if (m_rest.size() < 2)
            ThrowBadKey("truncated DER element");
        const std::uint8_t tag = static_cast<std::uint8_t>(m_rest[0]);
        if (tag != expected_tag)
            ThrowBadKey("unexpected DER element");
        std::size_t length = static_cast<std::uint8_t>(m_rest[1]);
        std::size_t header = 2;
        if (length & 0x80) {
            const std::size_t count = length & 0x7F;
            if (count == 0 || count > 4 || m_rest.size() < 2 + count)
                ThrowBadKey("bad DER length");
            length = 0;
            for (std::size_t i = 0; i < count; ++i)
                length = (length << 8) | static_cast<std::uint8_t>(m_rest[2 + i]);
            header += count;
        }
        if (length > m_rest.size() - header)
            ThrowBadKey("truncated DER element");
        DerElement element{tag, m_rest.substr(header, length)};
        m_rest.remove_prefix(header + length);
        return element;
    }

private:
    std::string_view m_rest;
};

GcryMpi ScanInteger(std::string_view content)
{
    if (content.empty() || (static_cast<std::uint8_t>(content[0]) & 0x80))
        ThrowBadKey("negative or empty integer");
    GcryMpi value;
    if (const gcry_error_t error =
            gcry_mpi_scan(value.out(), GCRYMPI_FMT_USG, content.data(), content.size(), nullptr))
        ThrowGcryptError(error);
    return value;
}

// RSAPrivateKey ::= SEQUENCE { version, n, e, d, p, q, d mod (p-1),
//                              d mod (q-1), q^-1 mod p }
GcrySexp ParseRsaPrivateKey(std::string_view der)
{
    DerReader outer(der);
    DerReader fields(outer.Next(DER_SEQUENCE).content);
    fields.Next(DER_INTEGER); // version
    GcryMpi n = ScanInteger(fields.Next(DER_INTEGER).content);
    GcryMpi e = ScanInteger(fields.Next(DER_INTEGER).content);
    GcryMpi d = ScanInteger(fields.Next(DER_INTEGER).content);
    GcryMpi p = ScanInteger(fields.Next(DER_INTEGER).content);
    GcryMpi q = ScanInteger(fields.Next(DER_INTEGER).content);

    // libgcrypt wants p < q and u = p^-1 mod q.
    if (gcry_mpi_cmp(p.get(), q.get()) > 0)
        std::swap(p, q);
    GcryMpi u(gcry_mpi_new(0));
    if (!gcry_mpi_invm(u.get(), p.get(), q.get()))
        ThrowBadKey("the primes are not coprime");

    GcrySexp key;
    if (const gcry_error_t error = gcry_sexp_build(
            key.out(), nullptr, "(private-key(rsa(n %m)(e %m)(d %m)(p %m)(q %m)(u %m)))", n.get(),
            e.get(), d.get(), p.get(), q.get(), u.get()))
        ThrowGcryptError(error);
    if (const gcry_error_t error = gcry_pk_testkey(key.get()))
        ThrowBadKey(gcry_strerror(error));
    return key;
}

// PrivateKeyInfo ::= SEQUENCE { version, AlgorithmIdentifier, OCTET STRING }
GcrySexp ParsePkcs8PrivateKey(std::string_view der)
{
    DerReader outer(der);
    DerReader fields(outer.Next(DER_SEQUENCE).content);
    fields.Next(DER_INTEGER); // version
    DerReader algorithm(fields.Next(DER_SEQUENCE).content);
    if (algorithm.Next(DER_OBJECT_IDENTIFIER).content != RSA_ENCRYPTION_OID)
        ThrowBadKey("not an RSA key");
    return ParseRsaPrivateKey(fields.Next(DER_OCTET_STRING).content);
}

// The base64 body between the BEGIN and END lines of label, line breaks removed.
bool PemBody(std::string_view pem, std::string_view label, std::string& body)
{
    const std::string begin = "-----BEGIN " + std::string(label) + "-----";
    const std::string end = "-----END " + std::string(label) + "-----";
    const auto first = pem.find(begin);
    if (first == std::string_view::npos)
        return false;
    const auto last = pem.find(end, first);
    if (last == std::string_view::npos)
        ThrowBadKey("no " + end + " line");
    body.clear();
    for (char c : pem.substr(first + begin.size(), last - first - begin.size())) {
        if (c == ':')
            ThrowBadKey("encrypted keys are not supported");
        if (c != '\n' && c != '\r' && c != ' ' && c != '\t')
            body.push_back(c);
    }
    return true;
}

} // namespace

GcrySexp LoadPrivateKeyPem(std::string_view pem)
{
    std::string body;
    if (PemBody(pem, "PRIVATE KEY", body))
        return ParsePkcs8PrivateKey(corvid::base64::Decode(body));
    if (PemBody(pem, "RSA PRIVATE KEY", body))
        return ParseRsaPrivateKey(corvid::base64::Decode(body));
    ThrowBadKey("no PEM private key found");
}

GcrySexp LoadPrivateKeyFile(const std::string& path)
{
    try {
        return LoadPrivateKeyPem(corvid::ReadWholeFile(path));
    } catch (const corvid::ErrnoException&) {
        throw;
    } catch (const std::exception& e) {
        throw std::runtime_error(path + ": " + e.what());
    }
}

namespace {

// An MPI as an unsigned big-endian number (without leading zeros, as
// libgcrypt prints it); empty for none.
std::string MpiBytes(const GcryMpi& value)
{
    if (!value)
        return {};
    unsigned char* buffer = nullptr;
    std::size_t length = 0;
    if (const gcry_error_t error = gcry_mpi_aprint(GCRYMPI_FMT_USG, &buffer, &length, value.get()))
        ThrowGcryptError(error);
    const std::unique_ptr<unsigned char, decltype(&gcry_free)> owned(buffer, &gcry_free);
    return std::string(reinterpret_cast<const char*>(buffer), length);
}

std::string KeyModulus(const GcrySexp& key)
{
    const GcrySexp n(gcry_sexp_find_token(key.get(), "n", 1));
    return MpiBytes(GcryMpi(n ? gcry_sexp_nth_mpi(n.get(), 1, GCRYMPI_FMT_USG) : nullptr));
}

// A PEM file's key, owned.
class PemKey final : public SigningKey {
public:
    explicit PemKey(GcrySexp key) : m_key(std::move(key)) {}
    std::string Modulus() const override { return m_view.Modulus(); }
    std::string Sign(int algorithm, std::string_view digest) const override { return m_view.Sign(algorithm, digest); }

private:
    GcrySexp m_key;
    GcryptKey m_view{m_key};
};

} // namespace

std::string GcryptKey::Modulus() const
{
    return KeyModulus(m_key);
}

std::unique_ptr<SigningKey> OpenSigningKey(const std::string& key, const PinReader& read_pin)
{
    if (IsPkcs11Uri(key))
        return OpenPkcs11Key(key, read_pin);
    return std::make_unique<PemKey>(LoadPrivateKeyFile(key));
}

void RequireAcceptedKey(const SigningKey& key, std::initializer_list<StoredKey> accepted, const std::string& role)
{
    const std::string modulus = key.Modulus();
    const std::size_t bits =
        modulus.empty() ? 0 : 8 * modulus.size() - std::countl_zero(static_cast<unsigned char>(modulus[0]));
    if (bits != 2048)
        throw std::invalid_argument(
            fmt::format("the key has {} bits: the player's {} keys are 2048-bit RSA keys", bits, role));
    for (const StoredKey stored : accepted) {
        if (KeyModulus(LoadPublicKey(stored)) == modulus)
            return;
    }
    throw std::invalid_argument(
        fmt::format("the key is not one of the player's {} keys: the player would refuse its signatures", role));
}

std::string SignDigest(const GcrySexp& private_key, int algorithm, std::string_view digest)
{
    const GcrySexp data = BuildDigestData(algorithm, digest);
    GcrySexp result;
    if (const gcry_error_t error = gcry_pk_sign(result.out(), data.get(), private_key.get()))
        ThrowGcryptError(error);

    GcrySexp s(gcry_sexp_find_token(result.get(), "s", 0));
    if (!s)
        throw std::runtime_error("Signature value missing");
    GcryMpi value(gcry_sexp_nth_mpi(s.get(), 1, GCRYMPI_FMT_USG));
    if (!value)
        throw std::runtime_error("Signature value missing");

    const std::size_t length = (gcry_pk_get_nbits(private_key.get()) + 7) / 8;
    std::vector<unsigned char> buffer(length);
    std::size_t written = 0;
    if (const gcry_error_t error =
            gcry_mpi_print(GCRYMPI_FMT_USG, buffer.data(), buffer.size(), &written, value.get()))
        ThrowGcryptError(error);
    // Left-pad to the modulus length: the integer may have leading zero bytes.
    std::string signature(length - written, '\0');
    signature.append(reinterpret_cast<const char*>(buffer.data()), written);
    return signature;
}
