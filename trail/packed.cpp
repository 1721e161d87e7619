#include "trail/packed.h"

#include <endian.h>
#include <zstd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "base/shared_library.h"

namespace sd::trail {

namespace {

struct ZstdApi {
    const SharedLibrary library{ZSTD_SONAME};
    LOADED(library, ZSTD_isError);
    LOADED(library, ZSTD_createCCtx);
    LOADED(library, ZSTD_freeCCtx);
    LOADED(library, ZSTD_CCtx_setParameter);
    LOADED(library, ZSTD_compressBound);
    LOADED(library, ZSTD_compress2);
    LOADED(library, ZSTD_findFrameCompressedSize);
    LOADED(library, ZSTD_getFrameContentSize);
    LOADED(library, ZSTD_decompress);
};

const ZstdApi& zstd() {
    static const ZstdApi sApi;
    return sApi;
}

constexpr std::uint32_t kSkippedFrame = 0x184d2a5e;
constexpr int kLevel = 6;  // beyond, twice the time saves 2 %: most of a line are digests

void addNumber(std::string& out, std::uint32_t number) {
    number = htole32(number);
    out.append(reinterpret_cast<const char*>(&number), sizeof number);
}

std::uint32_t numberAt(std::string_view bytes, std::size_t at) {
    std::uint32_t number = 0;
    std::memcpy(&number, bytes.data() + at, sizeof number);
    return le32toh(number);
}

}  // namespace

std::string packedBlock(std::string_view lines) {
    const ZstdApi& api = zstd();
    const std::unique_ptr<ZSTD_CCtx, decltype(api.ZSTD_freeCCtx)> context(api.ZSTD_createCCtx(), api.ZSTD_freeCCtx);
    if (!context) throw std::runtime_error("no memory to pack a block");
    (void)api.ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, kLevel);
    (void)api.ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1);
    std::string packed(api.ZSTD_compressBound(lines.size()), '\0');
    const std::size_t size =
        api.ZSTD_compress2(context.get(), packed.data(), packed.size(), lines.data(), lines.size());
    if (api.ZSTD_isError(size) != 0) throw std::runtime_error("zstd can't pack a block");
    packed.resize(size);
    addNumber(packed, kSkippedFrame);
    addNumber(packed, sizeof(std::uint32_t));
    addNumber(packed, static_cast<std::uint32_t>(size));
    return packed;
}

bool unpackBlock(std::string_view bytes, std::string& lines, std::size_t& size) {
    const ZstdApi& api = zstd();
    const std::size_t frame = api.ZSTD_findFrameCompressedSize(bytes.data(), bytes.size());
    if (api.ZSTD_isError(frame) != 0 || bytes.size() - frame < kMarkBytes) return false;
    size = frame + kMarkBytes;
    if (sizeByMark(bytes.substr(frame, kMarkBytes)) != size) return false;
    const unsigned long long content = api.ZSTD_getFrameContentSize(bytes.data(), frame);
    if (content == 0 || content > kBlockBytesMax) return false;  // what is not told is the largest of numbers
    lines.resize(static_cast<std::size_t>(content));
    return api.ZSTD_decompress(lines.data(), lines.size(), bytes.data(), frame) == content && lines.back() == '\n';
}

std::optional<std::size_t> sizeByMark(std::string_view mark) {
    if (mark.size() != kMarkBytes || numberAt(mark, 0) != kSkippedFrame || numberAt(mark, 4) != 4) return std::nullopt;
    const std::size_t size = numberAt(mark, 8) + kMarkBytes;
    return size <= kPackedBlockBytesMax ? std::optional(size) : std::nullopt;
}

}  // namespace sd::trail
