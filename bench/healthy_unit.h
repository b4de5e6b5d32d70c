// A healthy unit saved to a scratch directory, the way a returned player is
// saved for "vxtool report": raw images of its four partitions, and its live
// files (/proc/boardid, /proc/meminfo, /etc/veltrix-version, /dev/mem, /sys)
// under a root directory. With each partition goes the least its format
// requires a reader to read, worked out from the bytes written here.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

namespace bench {

inline constexpr std::size_t ERASE_SIZE = 128 * 1024;
inline constexpr std::size_t PAGE_SIZE = 2048;
inline constexpr const char* SECURE_ID = "5ec1d0000000c0de";
inline constexpr const char* SERIAL = "BENCH0001";
inline constexpr const char* ETH0_ADDRESS = "02:56:58:00:00:42";
// The two blessings, each signed with the first blessing key.
inline constexpr const char* BLESSING_NAMES[] = {"vxear", "disable-usb-storage"};

// One partition image and what reading it needs at least.
struct SavedPartition {
    std::string name;   // its /proc/mtd name
    std::string option; // vxtool report's prefix: "env", "devdata", ...
    std::string image;  // the image file, every block, bad ones zero-filled
    std::set<std::size_t> bad_blocks;
    std::size_t floor = 0;   // bytes the format requires a reader to read
    std::string floor_parts; // what the floor is made of, for the report
};

struct HealthyUnit {
    std::string root; // live paths below it: proc/, etc/, dev/mem, sys/
    std::vector<SavedPartition> partitions;
    // The bytes of the environment's records up to and including the end
    // byte: what a reader that stopped at the end of the list would read.
    std::size_t environment_records = 0;
    // The digest and signature of the first blessing, for timing one
    // verification on its own.
    std::string blessing_digest;
    std::string blessing_signature;

    // The command line of "vxtool report" over the saved unit (without the
    // program's own name).
    std::vector<std::string> ReportArguments() const;
    // The command line of bench_pass over the saved unit.
    std::vector<std::string> PassArguments() const;
};

// Writes the unit below dir (which must exist). keys_dir holds the
// test-only private keys; scratch_program is an executable whose bytes
// stand in for the rescue kernel's text. Runs the gzip program.
HealthyUnit SaveHealthyUnit(const std::string& dir, const std::string& keys_dir,
                            const std::string& scratch_program);

// How many leading bytes of a gzip stream must be fed to a decompressor
// before it has produced the first wanted bytes of the data (the gzip header
// included): the stream is inflated one input byte at a time.
std::size_t GzipBytesToInflate(const std::string& compressed, std::size_t wanted);

} // namespace bench
