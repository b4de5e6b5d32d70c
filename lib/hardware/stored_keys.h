// The four RSA public keys stored in the program, each as the canonical
// S-expression "(10:public-key(3:rsa(1:n257:" <257-byte modulus with a
// leading zero byte> ")(1:e3:" <3-byte exponent> ")))" of exactly 298 bytes.
// The key values are generated at build time from PEM files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr std::size_t STORED_KEY_SIZE = 298;

using StoredKey = std::span<const std::uint8_t, STORED_KEY_SIZE>;

// The SRB signers, tried in this order.
StoredKey SrbPublicKey1();
StoredKey SrbPublicKey2();
// The blessing signers, parsed in this order.
StoredKey BlessingPublicKey1();
StoredKey BlessingPublicKey2();
