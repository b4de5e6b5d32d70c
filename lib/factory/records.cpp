#include "factory/records.h"

#include <stdexcept>

#include <fmt/format.h>

#include "factory/rsa_signer.h"
#include "hardware/blessings.h"
#include "hardware/capabilities.h"
#include "hardware/srb.h"
#include "hardware/vx_device_data.h"
#include "platform/base64.h"
#include "platform/binary_fields.h"

std::string EncodeBootloaderEnvironmentBlock(const std::vector<std::string>& texts,
                                             std::size_t erase_size)
{
    std::string block;
    for (const std::string& text : texts) {
        if (text.find('=') == std::string::npos)
            throw std::runtime_error(fmt::format("No '=' in environment variable '{}'", text));
        if (text.size() > MAX_ENVIRONMENT_RECORD_TEXT)
            throw std::runtime_error(fmt::format(
                "Environment variable too long for one record ({} bytes, at most {}): '{}'",
                text.size(), MAX_ENVIRONMENT_RECORD_TEXT, text.substr(0, text.find('='))));
        block += static_cast<char>(ENVIRONMENT_RECORD_VARIABLE);
        block += static_cast<char>(text.size() + 1);
        block += '\0'; // flags
        block += text;
    }
    block += static_cast<char>(ENVIRONMENT_RECORD_END);
    if (block.size() > erase_size)
        throw std::runtime_error(fmt::format(
            "Environment does not fit in one erase block ({} bytes needed, {} available)",
            block.size(), erase_size));
    block.resize(erase_size, '\xFF');
    return block;
}

std::string SignSrb(const std::map<std::string, std::string>& environment,
                    const std::string& secure_id, const SigningKey& key)
{
    const std::string signature = key.Sign(GCRY_MD_SHA256, ComputeSrbDigest(environment, secure_id));
    return SRB_SIGNATURE_TYPE_RSA + corvid::base64::Encode(signature);
}

std::vector<std::pair<std::string, std::string>> SrbSignatureVariables(
    const std::string& signature_text, std::size_t max_record_text)
{
    const std::string whole = SRB_SIGNATURE_VARIABLE;
    if (whole.size() + 1 + signature_text.size() <= max_record_text)
        return {{whole, signature_text}};
    std::vector<std::pair<std::string, std::string>> parts;
    for (std::size_t offset = 0; offset < signature_text.size();) {
        std::string name = fmt::format("{}_{}", whole, parts.size());
        if (name.size() + 2 > max_record_text)
            throw std::runtime_error("Environment records too short for the SRB signature");
        const std::size_t room = max_record_text - name.size() - 1;
        parts.emplace_back(std::move(name), signature_text.substr(offset, room));
        offset += room;
    }
    return parts;
}

std::string MakeBlessingPayload(const std::string& tag, const std::string& names,
                                const std::string& parameter, const std::string& secure_id,
                                const std::string& serial, const SigningKey& key)
{
    using namespace blessings;
    if (tag != BLESSING_TAG && tag != BOON_TAG)
        throw std::invalid_argument("A blessing record is tagged BLES or BOON, not '" + tag + "'");
    bool any_name = false;
    ForEachName(names, [&](const std::string&) { any_name = true; });
    if (!any_name)
        throw std::invalid_argument("A blessing record needs at least one name");
    if (const char* bound = tag == BOON_TAG ? MentionedDeviceBoundOnlyBlessing(names) : nullptr)
        throw std::invalid_argument(fmt::format("A boon cannot name {}: the player refuses it", bound));
    for (const std::string* field : {&names, &parameter, &secure_id, &serial}) {
        if (field->size() > 0xFFFF)
            throw std::length_error("A blessing field is longer than 65535 bytes");
    }

    const std::string message = SignedMessage(tag, secure_id, serial, names, parameter);
    const std::string signature = key.Sign(GCRY_MD_SHA256, ComputeDigest(GCRY_MD_SHA256, message));
    std::string payload = corvid::WriteLengthPrefixedString(names);
    payload += corvid::WriteLengthPrefixedString(signature);
    if (!parameter.empty())
        payload += corvid::WriteLengthPrefixedString(parameter);
    return payload;
}

std::string EncodeDeviceDataChunk(const std::string& tag, const std::string& payload)
{
    if (tag.size() != DEVICE_DATA_TAG_SIZE)
        throw std::invalid_argument("Device data tag must be 4 bytes: '" + tag + "'");
    if (corvid::LoadLe32(tag.data()) == DEVICE_DATA_ERASED_WORD)
        throw std::invalid_argument("Device data tag must not read as erased flash");
    if (payload.size() > DEVICE_DATA_MAX_CHUNK_LENGTH - DEVICE_DATA_DIGEST_SIZE)
        throw std::length_error("Device data payload too large: " + std::to_string(payload.size()) +
                                " bytes");
    std::string chunk = tag;
    corvid::AppendLe32(chunk, static_cast<std::uint32_t>(payload.size() + DEVICE_DATA_DIGEST_SIZE));
    chunk += payload;
    chunk += DeviceDataDigest(payload);
    return chunk;
}

std::string EncodeDeviceDataImage(const std::vector<std::string>& encoded_chunks,
                                  std::uint32_t header_word)
{
    std::string image;
    corvid::AppendLe32(image, DEVICE_DATA_MAGIC);
    corvid::AppendLe32(image, header_word);
    for (const std::string& chunk : encoded_chunks)
        image += chunk;
    return image;
}
