// RSA PKCS#1 v1.5 signature verification with libgcrypt, and the library's
// one-time initialisation. Every signed record of the device (the SRB and the
// blessings) is verified here against the public keys stored in the program.
#pragma once

#include <string_view>

#include "hardware/gcrypt_handles.h"
#include "hardware/stored_keys.h"

// Initialises libgcrypt once per process: registers the POSIX-threads
// callbacks, checks the library version against the one the program was
// built against (GCRYPT_VERSION) and disables the dropping of privileges.
// Idempotent: a process-wide flag, set with an atomic exchange, lets only the
// first call do the work. Every module that uses libgcrypt calls it from its
// static initialisation, so this happens before main. Throws
// std::runtime_error on failure.
void InitialiseGcrypt();

// The version test of InitialiseGcrypt: a minimum-version test in
// libgcrypt's sense. Throws std::runtime_error
// "Incorrect libgcrypt version. Expected <required>" when the library in use
// is older than required.
void CheckGcryptVersion(const char* required);

// Parses a stored public key (exactly 298 bytes, canonical S-expression, no
// auto-detection). Throws std::runtime_error with libgcrypt's error text.
GcrySexp LoadPublicKey(StoredKey key);

// The data expression of a PKCS#1 v1.5 signature over a digest made with
// the digest algorithm algorithm: "(data (flags pkcs1)(hash <name> <digest>))".
// Throws std::runtime_error with libgcrypt's error text.
GcrySexp BuildDigestData(int algorithm, std::string_view digest);

// Verifies an RSA PKCS#1 v1.5 signature (a big-endian integer) over a digest
// that the caller computed with the digest algorithm algorithm (GCRY_MD_*).
// Returns false for a signature shorter than the digest without calling the
// library; false for a signature longer than the key's modulus or whose
// value is not below it (RSA's own rules, which libgcrypt does not check);
// false for a key without an RSA modulus; and false for any signature that
// libgcrypt does not accept.
// Throws std::runtime_error with libgcrypt's error text when the data or
// signature expression cannot be built.
bool VerifySignature(const GcrySexp& public_key, int algorithm, std::string_view digest,
                     std::string_view signature);
