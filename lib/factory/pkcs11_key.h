// Signing keys that never leave a PKCS#11 token (a hardware token or HSM),
// named by an RFC 7512 URI: "pkcs11:token=vx-factory;object=srb-1". The
// module is the URI's module-path, else every module p11-kit is configured
// with; exactly one token must match the URI's token attributes, and on it
// exactly one private key its object attributes (object, id). The PIN is
// read from the URI's pin-source ("file:PATH", or a path), else asked of the
// caller; a pin-value (the PIN in the URI, so on a command line) is refused.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "factory/rsa_signer.h"

// Whether text is a PKCS#11 URI (begins with "pkcs11:").
bool IsPkcs11Uri(std::string_view text);

// Loads the module, logs in to the token and finds the key. Throws
// std::runtime_error with a message that names the URI's part at fault: a
// URI that does not parse, a module that does not load, no or several
// matching tokens or keys, a refused PIN, a key that is not an RSA key.
std::unique_ptr<SigningKey> OpenPkcs11Key(const std::string& uri, const PinReader& read_pin);
