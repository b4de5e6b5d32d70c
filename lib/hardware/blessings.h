// Blessings: signed records in the device-data partition that grant this
// device named features. A blessing ("BLES") is bound to one device by its
// Secure ID and serial number; a boon ("BOON") is signed but bound to none.
//
// Record payload, each field a 16-bit little-endian length and its bytes:
//   names      one or more feature names separated by ":"
//   signature  RSA PKCS#1 v1.5 over the SHA-256 of the signed message
//   parameter  optional (an absent field reads as the empty text)
// Signed message, the same field encoding:
//   BLES: tag, Secure ID, serial, parameter (only when not empty), names
//   BOON: tag, parameter (only when not empty), names
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "hardware/gcrypt_handles.h"
#include "hardware/vx_device_data.h"

namespace blessings {

inline constexpr const char* BLESSING_TAG = "BLES";
inline constexpr const char* BOON_TAG = "BOON";

using BlessingHandler = std::function<void(const std::string& name, const std::string& parameter)>;

// Calls handler with each name granted by a valid BLES or BOON record of the
// partition, in flash order, with that record's parameter. A record that
// fails (bad encoding, bad signature, or the handler throwing) is reported
// on standard error as "Exception while checking blessings: <what>\n" and
// skipped; names it already granted stay granted. A name that only a
// device-bound blessing may grant (CAPABILITIES, in any ASCII case, as
// capabilities are granted) is skipped in a record that is not a BLES.
// Failures to parse the
// blessing keys or to read the partition throw.
void EnumerateBlessings(const VeltrixDeviceDataStorageNand& storage, const std::string& secure_id,
                        const std::string& serial, const BlessingHandler& handler);

// Parses, checks and verifies one record against the two blessing keys.
// Returns the names field and the parameter. Throws std::runtime_error
// "Incorrectly expressed string", "Bogus data after blessings signature",
// "Unable to write unsupported boon" (a boon whose names field mentions a
// device-bound-only name anywhere, in any ASCII case) or "Blessing not
// correctly signed".
std::pair<std::string, std::string> VerifyBlessing(const std::string& secure_id,
                                                   const std::string& serial,
                                                   const std::string& tag,
                                                   const GcrySexp& blessing_key_1,
                                                   const GcrySexp& blessing_key_2,
                                                   const std::string& payload);

// Calls handler with each non-empty name of a ":"-separated names field.
void ForEachName(const std::string& names, const std::function<void(const std::string&)>& handler);

// The message a record's signature covers.
std::string SignedMessage(const std::string& tag, const std::string& secure_id,
                          const std::string& serial, const std::string& names,
                          const std::string& parameter);

} // namespace blessings
