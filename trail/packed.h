// A packed file of the trail: what zstd unpacks to the file that it was. It consists of blocks, a frame of zstd each,
// that hold whole lines; behind each stands a frame that zstd skips, with the size of the block, so that the file can
// be read from its end.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace sd::trail {

inline constexpr std::size_t kBlockBytes = std::size_t{256} << 10;   // of lines in a block, where they are shorter
inline constexpr std::size_t kBlockBytesMax = std::size_t{1} << 20;  // none has more
inline constexpr std::size_t kMarkBytes = 12;                        // what stands behind a block
inline constexpr std::size_t kPackedBlockBytesMax = kBlockBytesMax + (std::size_t{64} << 10);  // with its mark

// Both throw LibraryFailure (base/shared_library.h) where there is no libzstd. Any thread.

// A block of lines with its mark. Throws std::runtime_error where it can't be packed.
std::string packedBlock(std::string_view lines);

// Unpacks the block that the bytes begin with, and sets `size` to what it takes of them with its mark. False where
// there is no sound block. Any bytes are safe.
bool unpackBlock(std::string_view bytes, std::string& lines, std::size_t& size);

// What the block before a mark takes, with that mark; nothing where it is none.
std::optional<std::size_t> sizeByMark(std::string_view mark);

}  // namespace sd::trail
