// Measures what a boot spends on flash and identity records: loading the
// environment block behind bad blocks, reading the device-data partition,
// verifying the signed manufacturing record and the blessings. Prints the
// figures; the partitions are image files in a scratch directory, so the
// numbers are the library's own cost, without the flash chip's.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "timing.h"

#include "hardware/blessings.h"
#include "hardware/bootloader_environment.h"
#include "hardware/nand_image_access.h"
#include "factory/records.h"
#include "factory/rsa_signer.h"
#include "hardware/srb.h"
#include "hardware/vx_device_data.h"
#include "platform/posix_helpers.h"

namespace {

constexpr std::size_t ERASE_SIZE = 128 * 1024;
constexpr std::size_t PAGE_SIZE = 2048;
const std::string SECURE_ID = "5ec1d0000000c0de";
const std::string SERIAL = "BENCH0001";

using vxbench::MicrosecondsPerCall;

// Writes a partition image: bad blocks (zero-filled) first, then data over
// the good blocks, erased to the end.
std::string WriteImage(const std::string& path, std::size_t blocks, std::size_t bad_leading,
                       const std::string& data)
{
    std::string image(bad_leading * ERASE_SIZE, '\0');
    image += data;
    image.resize(blocks * ERASE_SIZE, '\xff');
    corvid::WriteWholeFile(path, image, 0644);
    return path;
}

std::set<std::size_t> Leading(std::size_t n)
{
    std::set<std::size_t> bad;
    for (std::size_t i = 0; i < n; ++i)
        bad.insert(i);
    return bad;
}

} // namespace

int main()
{
    const std::string dir = std::filesystem::temp_directory_path() / fmt::format("boot_bench.{}", getpid());
    std::filesystem::create_directories(dir);

    // The environment block of a signed unit, behind two bad blocks.
    std::map<std::string, std::string> variables = {
        {"VX_FORMAT", "1"}, {"VX_SERIAL", SERIAL}, {"VX_HWREV", "3"},
        {"VX_HWFLAGS", "0x30000113"}, {"VX_OEM_ID", "0"}, {"VX_OEM_MODEL", "Signage 4K"},
        {"ETH0_HWADDR", "02:56:58:00:00:42"}};
    const GcrySexp srb_key = LoadPrivateKeyFile(VX_TEST_KEYS_DIR "/srb-1.test-only.pem");
    for (const auto& [name, value] : SrbSignatureVariables(SignSrb(variables, SECURE_ID, srb_key)))
        variables[name] = value;
    std::vector<std::string> texts;
    for (const auto& [name, value] : variables)
        texts.push_back(name + "=" + value);
    const auto nvram = NandImageAccess::Create(
        WriteImage(dir + "/nvram.img", 8, 2, EncodeBootloaderEnvironmentBlock(texts, ERASE_SIZE)),
        ERASE_SIZE, PAGE_SIZE, Leading(2));

    // A device-data partition with eight blessings, behind one bad block.
    const GcrySexp blessing_key = LoadPrivateKeyFile(VX_TEST_KEYS_DIR "/blessing-1.test-only.pem");
    std::vector<std::string> chunks;
    for (int i = 0; i < 8; ++i)
        chunks.push_back(EncodeDeviceDataChunk(
            "BLES", MakeBlessingPayload("BLES", fmt::format("feature-{}", i), "", SECURE_ID,
                                                   SERIAL, blessing_key)));
    const auto devid = NandImageAccess::Create(
        WriteImage(dir + "/devid.img", 8, 1, EncodeDeviceDataImage(chunks)), ERASE_SIZE, PAGE_SIZE,
        Leading(1));

    std::size_t granted = 0;
    const double load = MicrosecondsPerCall([&] { LoadBootloaderEnvironment(*nvram); });
    const double srb = MicrosecondsPerCall([&] { VerifySrb(variables, SECURE_ID); });
    const double read = MicrosecondsPerCall([&] { VeltrixDeviceDataStorageNand(devid).ReadImage(); });
    const double enumerate = MicrosecondsPerCall([&] {
        granted = 0;
        blessings::EnumerateBlessings(VeltrixDeviceDataStorageNand(devid), SECURE_ID, SERIAL,
                                      [&](const std::string&, const std::string&) { ++granted; });
    });
    std::filesystem::remove_all(dir);

    fmt::print("environment load (one block behind 2 bad blocks): {:9.1f} us\n", load);
    fmt::print("SRB verification (split signature, key 1):        {:9.1f} us\n", srb);
    fmt::print("device-data image read ({} chunks, 1 bad block):    {:9.1f} us\n", chunks.size(), read);
    fmt::print("blessing enumeration ({} records, {} granted):       {:9.1f} us ({:.1f} us a record)\n",
               chunks.size(), granted, enumerate, enumerate / chunks.size());
    return granted == chunks.size() ? 0 : 1;
}
