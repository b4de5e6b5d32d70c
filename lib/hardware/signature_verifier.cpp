#include "hardware/signature_verifier.h"

#include <atomic>
#include <stdexcept>
#include <string>

namespace {

// The POSIX-threads callback block that initialisation registers; libgcrypt
// 1.10 marks its type deprecated (it no longer needs it), but the
// registration is part of the start-up sequence and is kept.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
GCRY_THREAD_OPTION_PTHREAD_IMPL;
#pragma GCC diagnostic pop

std::atomic<bool> s_gcrypt_initialised{false};

const bool s_gcrypt = (InitialiseGcrypt(), true);

} // namespace

void CheckGcryptVersion(const char* required)
{
    if (gcry_check_version(required) == nullptr)
        throw std::runtime_error(std::string("Incorrect libgcrypt version. Expected ") + required);
}

void InitialiseGcrypt()
{
    if (s_gcrypt_initialised.exchange(true))
        return;
    // The option word of the callback block reads
    // GCRY_THREAD_OPTION_PTHREAD | (1 << 8).
    if (const gcry_error_t error = gcry_control(GCRYCTL_SET_THREAD_CBS, &gcry_threads_pthread))
        ThrowGcryptError(error);
    CheckGcryptVersion(GCRYPT_VERSION);
    if (const gcry_error_t error = gcry_control(GCRYCTL_DISABLE_PRIV_DROP))
        ThrowGcryptError(error);
}

GcrySexp LoadPublicKey(StoredKey key)
{
    GcrySexp handle;
    if (const gcry_error_t error = gcry_sexp_new(handle.out(), key.data(), key.size(), 0))
        ThrowGcryptError(error);
    return handle;
}

GcrySexp BuildDigestData(int algorithm, std::string_view digest)
{
    GcrySexp data;
    if (const gcry_error_t error =
            gcry_sexp_build(data.out(), nullptr, "(data (flags pkcs1)(hash %s %b))",
                            gcry_md_algo_name(algorithm), static_cast<int>(digest.size()),
                            digest.data()))
        ThrowGcryptError(error);
    return data;
}

namespace {

// The key's RSA modulus n; empty when the key has none.
GcryMpi Modulus(const GcrySexp& public_key)
{
    const GcrySexp n(public_key ? gcry_sexp_find_token(public_key.get(), "n", 1) : nullptr);
    return GcryMpi(n ? gcry_sexp_nth_mpi(n.get(), 1, GCRYMPI_FMT_USG) : nullptr);
}

} // namespace

bool VerifySignature(const GcrySexp& public_key, int algorithm, std::string_view digest,
                     std::string_view signature)
{
    if (signature.size() < digest.size())
        return false;

    // An RSA signature is a number s < n of at most k bytes, k the modulus's
    // length. libgcrypt checks neither: it accepts s + n for s, and aborts
    // the process on a field of about 64 KiB. Both are refused here, before
    // the library sees the signature.
    const GcryMpi modulus = Modulus(public_key);
    if (!modulus || signature.size() > (gcry_mpi_get_nbits(modulus.get()) + 7) / 8)
        return false;

    const GcrySexp data = BuildDigestData(algorithm, digest);

    GcryMpi value;
    if (const gcry_error_t error = gcry_mpi_scan(value.out(), GCRYMPI_FMT_USG, signature.data(),
                                                 signature.size(), nullptr))
        ThrowGcryptError(error);
    if (gcry_mpi_cmp(value.get(), modulus.get()) >= 0)
        return false;

    GcrySexp signature_expression;
    if (const gcry_error_t error =
            gcry_sexp_build(signature_expression.out(), nullptr, "(sig-val(rsa(s %m)))", value.get()))
        ThrowGcryptError(error);

    return gcry_pk_verify(signature_expression.get(), data.get(), public_key.get()) == 0;
}
