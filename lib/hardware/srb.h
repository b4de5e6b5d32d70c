// The SRB: the signed manufacturing record in the boot-loader environment.
// The signature is an RSA PKCS#1 v1.5 signature (SHA-256 DigestInfo) whose
// hash field holds the HMAC-SHA256 of the signed variables keyed with the
// device's Secure ID, so a record only verifies on the device it was made for.
#pragma once

#include <map>
#include <string>


// The variable that holds the signature ("A" followed by base64), or, when it
// is absent, the base of the numbered parts VX_SIGNATURE_0, VX_SIGNATURE_1, ...
inline constexpr const char* SRB_SIGNATURE_VARIABLE = "VX_SIGNATURE";
// The type character of an RSA signature text.
inline constexpr char SRB_SIGNATURE_TYPE_RSA = 'A';

// True when the name, upper-cased, begins with "VX_" or is "ETH0_HWADDR" or
// "WLAN0_HWADDR": the family of manufacturing variables.
bool IsSrbVariable(const std::string& name);

// True when the variable takes part in the signature: an SRB variable whose
// upper-cased name neither begins with "VX_SIGNATURE" nor is exactly
// "VX_HWPROFILE".
bool IsSignedSrbVariable(const std::string& name);

// The value of name, or, when name is absent, the concatenation of name_0,
// name_1, ... up to the first absent index. Empty when neither is present.
std::string GetSplitVariable(const std::map<std::string, std::string>& environment,
                             const std::string& name);

// HMAC-SHA256, keyed with the Secure ID, over "<name>\n<value>\n" of every
// signed variable in the environment's order. 32 bytes.
std::string ComputeSrbDigest(const std::map<std::string, std::string>& environment,
                             const std::string& secure_id);

// Returns when the environment carries a valid SRB signature for this Secure
// ID (against SRB key 1, then SRB key 2). Throws std::runtime_error otherwise:
// "No secure ID", "SRB signature not found", "SRB signature incomplete",
// "Unsupported SRB signature", "SRB signature verification failed", or the
// text of a failure to decode or of libgcrypt.
void VerifySrb(const std::map<std::string, std::string>& environment, const std::string& secure_id);
