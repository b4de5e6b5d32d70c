// The logical view of a NAND partition: the concatenation of its good erase
// blocks, the way the boot loader lays data out.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/nand_access.h"

namespace NandBlockAccess {

// Fills buffer with length bytes of the good blocks of nand, starting at
// logical_offset (which counts good blocks only). No device read crosses an
// erase-block boundary, and the bad-block state is asked afresh each time it
// is needed. A length of 0 does not touch the device.
// Throws std::runtime_error "Seek beyond end of good NAND blocks" when the
// good blocks end first (bytes already read stay in buffer), and
// std::runtime_error "Short read from NAND" when the device returns fewer
// bytes than asked for; errors of the device pass through unchanged.
void Read(NandAccess& nand, std::uint64_t logical_offset, void* buffer, std::size_t length);
void Read(const NandAccess::Pointer& nand, std::uint64_t logical_offset, void* buffer,
          std::size_t length);

// Walks the block starts 0, E, 2E, ... and returns the first one that
// IsBadBlock reports good. The bound is tested only after each query, so when
// every block is bad one more query is made at the first block start at or
// past the total size, which is then returned: a result >= GetTotalSize()
// means there is no good block. An erase size of 0 returns GetTotalSize()
// after the query at offset 0 if block 0 is bad.
std::uint64_t FindFirstGoodBlock(NandAccess& nand);

} // namespace NandBlockAccess
