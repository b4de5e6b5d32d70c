// The factory side of the records the player reads: the environment block,
// the SRB signature, blessing payloads and device-data chunks and images.
// Linked by the factory tool, the tests and the benchmarks, never by the
// start-up check.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "factory/rsa_signer.h"
#include "hardware/bootloader_environment.h"
#include "hardware/gcrypt_handles.h"

// One erase block holding a record (type 0x01, flags 0) for each KEY=VALUE
// text in the given order, the end byte 0x00, and 0xFF up to erase_size
// bytes. Throws std::runtime_error for a text without '=', a text too long
// for one record (more than MAX_ENVIRONMENT_RECORD_TEXT bytes), or records
// that do not fit in the block together with the end byte.
std::string EncodeBootloaderEnvironmentBlock(const std::vector<std::string>& texts,
                                             std::size_t erase_size);

// Signs the environment's SRB for a Secure ID: returns the signature text,
// "A" followed by the base64 of the RSA signature.
std::string SignSrb(const std::map<std::string, std::string>& environment,
                    const std::string& secure_id, const SigningKey& key);
inline std::string SignSrb(const std::map<std::string, std::string>& environment,
                           const std::string& secure_id, const GcrySexp& private_key)
{
    return SignSrb(environment, secure_id, GcryptKey(private_key));
}

// The variables that carry a signature text: VX_SIGNATURE alone when
// "VX_SIGNATURE=<text>" fits one record, otherwise VX_SIGNATURE_0,
// VX_SIGNATURE_1, ... each filled as far as its record allows.
std::vector<std::pair<std::string, std::string>> SrbSignatureVariables(
    const std::string& signature_text, std::size_t max_record_text = MAX_ENVIRONMENT_RECORD_TEXT);

// The payload of a signed blessing record. The parameter field is left out
// when the parameter is empty. Secure ID and serial only matter for a BLES
// record. Throws std::invalid_argument for another tag, an empty names list
// or a boon whose names mention a device-bound-only name ("eac3", see
// CAPABILITIES), and std::length_error for a field longer than 65535 bytes.
std::string MakeBlessingPayload(const std::string& tag, const std::string& names,
                                const std::string& parameter, const std::string& secure_id,
                                const std::string& serial, const SigningKey& key);
inline std::string MakeBlessingPayload(const std::string& tag, const std::string& names,
                                       const std::string& parameter, const std::string& secure_id,
                                       const std::string& serial, const GcrySexp& private_key)
{
    return MakeBlessingPayload(tag, names, parameter, secure_id, serial, GcryptKey(private_key));
}

// One device-data chunk: the 4-byte tag, the length, the payload and its
// SHA-1. Throws std::invalid_argument for a tag that is not 4 bytes or reads
// as erased flash, std::length_error for a payload the player would refuse.
std::string EncodeDeviceDataChunk(const std::string& tag, const std::string& payload);

// A whole device-data image: "VXDD", the header word, then the encoded
// chunks back to back. No padding and no end marker: the erased flash after
// it ends the list.
std::string EncodeDeviceDataImage(const std::vector<std::string>& encoded_chunks,
                                  std::uint32_t header_word = 0);
