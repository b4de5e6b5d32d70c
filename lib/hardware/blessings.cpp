#include "hardware/blessings.h"

#include <stdexcept>

#include "hardware/capabilities.h"
#include "hardware/signature_verifier.h"
#include "platform/binary_fields.h"
#include "platform/trace.h"

namespace blessings {
namespace {

const bool s_gcrypt = (InitialiseGcrypt(), true);

} // namespace

void ForEachName(const std::string& names, const std::function<void(const std::string&)>& handler)
{
    std::size_t begin = 0;
    while (begin <= names.size()) {
        std::size_t end = names.find(':', begin);
        if (end == std::string::npos)
            end = names.size();
        if (end > begin)
            handler(names.substr(begin, end - begin));
        begin = end + 1;
    }
}

std::string SignedMessage(const std::string& tag, const std::string& secure_id,
                          const std::string& serial, const std::string& names,
                          const std::string& parameter)
{
    using corvid::WriteLengthPrefixedString;
    std::string message = WriteLengthPrefixedString(tag);
    if (tag == BLESSING_TAG) {
        message += WriteLengthPrefixedString(secure_id);
        message += WriteLengthPrefixedString(serial);
    }
    if (!parameter.empty())
        message += WriteLengthPrefixedString(parameter);
    message += WriteLengthPrefixedString(names);
    return message;
}

std::pair<std::string, std::string> VerifyBlessing(const std::string& secure_id,
                                                   const std::string& serial,
                                                   const std::string& tag,
                                                   const GcrySexp& blessing_key_1,
                                                   const GcrySexp& blessing_key_2,
                                                   const std::string& payload)
{
    const char* cursor = payload.data();
    const char* const end = payload.data() + payload.size();
    const std::string names = corvid::ReadLengthPrefixedString(cursor, end);
    const std::string signature = corvid::ReadLengthPrefixedString(cursor, end);
    std::string parameter;
    if (cursor != end) {
        parameter = corvid::ReadLengthPrefixedString(cursor, end);
        if (cursor != end)
            throw std::runtime_error("Bogus data after blessings signature");
    }

    if (tag == BOON_TAG && MentionedDeviceBoundOnlyBlessing(names))
        throw std::runtime_error("Unable to write unsupported boon");

    const std::string digest = ComputeDigest(GCRY_MD_SHA256, SignedMessage(tag, secure_id, serial, names, parameter));
    if (!VerifySignature(blessing_key_1, GCRY_MD_SHA256, digest, signature) &&
        !VerifySignature(blessing_key_2, GCRY_MD_SHA256, digest, signature))
        throw std::runtime_error("Blessing not correctly signed");
    return {names, parameter};
}

void EnumerateBlessings(const VeltrixDeviceDataStorageNand& storage, const std::string& secure_id,
                        const std::string& serial, const BlessingHandler& handler)
{
    const GcrySexp key_1 = LoadPublicKey(BlessingPublicKey1());
    const GcrySexp key_2 = LoadPublicKey(BlessingPublicKey2());

    const std::string image = storage.ReadImage([](const std::string&) { return true; });
    ParseDeviceData(image, [&](const std::string& tag, const std::string& payload) {
        if (tag != BLESSING_TAG && tag != BOON_TAG)
            return;
        try {
            const auto verified = VerifyBlessing(secure_id, serial, tag, key_1, key_2, payload);
            const std::string& parameter = verified.second;
            ForEachName(verified.first, [&](const std::string& name) {
                if (tag != BLESSING_TAG && IsDeviceBoundOnly(name))
                    return;
                handler(name, parameter);
            });
        } catch (const std::exception& e) {
            corvid::PrintGuarded("Exception while checking blessings: {}\n", e.what());
        } catch (...) {
            corvid::PrintGuarded("Unknown exception while checking blessings\n");
        }
    });
}

} // namespace blessings
