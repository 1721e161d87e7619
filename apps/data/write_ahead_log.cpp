#include "apps/data/write_ahead_log.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <vector>

namespace apps {

namespace {

// The format is SQLite's documented one. Numbers are big-endian, those that are summed up as the magic number says.
constexpr size_t kHeaderBytes = 32;
constexpr size_t kFrameHeaderBytes = 24;
constexpr uint32_t kMagic = 0x377f0682;  // with its last bit set: sums of big-endian numbers
constexpr uint32_t kPageBytesMin = 512;
constexpr uint32_t kPageBytesMax = 65536;

using Bytes = std::vector<unsigned char>;

uint32_t bigEndian(const unsigned char* at) {
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

uint32_t littleEndian(const unsigned char* at) {
    return uint32_t{at[3]} << 24 | uint32_t{at[2]} << 16 | uint32_t{at[1]} << 8 | at[0];
}

struct Sum {
    bool ofBigEndian;
    uint32_t first = 0;
    uint32_t second = 0;

    void add(const unsigned char* at, size_t length) {
        for (const unsigned char* const end = at + length; at != end; at += 8) {
            first += (ofBigEndian ? bigEndian(at) : littleEndian(at)) + second;
            second += (ofBigEndian ? bigEndian(at + 4) : littleEndian(at + 4)) + first;
        }
    }
    bool is(const unsigned char* at) const { return first == bigEndian(at) && second == bigEndian(at + 4); }
};

bool isPageSize(uint32_t size) {
    return size >= kPageBytesMin && size <= kPageBytesMax && (size & (size - 1)) == 0;
}

bool read(std::ifstream& file, Bytes& bytes) {
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return file.gcount() == static_cast<std::streamsize>(bytes.size());
}

// Whether anything but zeros is left of the file; a log that a power cut left behind may be zeros alone.
bool holdsAnything(std::ifstream& file) {
    Bytes rest(kPageBytesMax);
    do {
        std::fill(rest.begin(), rest.end(), 0);
        read(file, rest);
        if (std::any_of(rest.begin(), rest.end(), [](unsigned char byte) { return byte != 0; })) return true;
    } while (file);
    return false;
}

}  // namespace

std::optional<uint64_t> damagedPlaceOfLog(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    Bytes header(kHeaderBytes);
    if (!file || !read(file, header)) return std::nullopt;

    Sum sum{(bigEndian(header.data()) & 1) != 0};
    sum.add(header.data(), kHeaderBytes - 8);
    const uint32_t pageBytes = bigEndian(header.data() + 8);
    const bool sound = (bigEndian(header.data()) & ~1U) == kMagic && isPageSize(pageBytes) && sum.is(&header[24]);
    if (!sound) return holdsAnything(file) ? std::optional<uint64_t>(0) : std::nullopt;

    Bytes frame(kFrameHeaderBytes + pageBytes);
    uint64_t badAt = 0;
    int commitsBehind = 0;
    for (uint64_t at = kHeaderBytes; read(file, frame); at += frame.size()) {
        // Frames of an earlier round of the log, which stand behind those of this one, have other salts.
        const bool ofThisRound = std::equal(&header[16], &header[24], &frame[8]);
        sum.add(frame.data(), 8);
        sum.add(frame.data() + kFrameHeaderBytes, pageBytes);
        if (badAt == 0 && !(ofThisRound && sum.is(&frame[16]))) badAt = at;
        const bool commit = bigEndian(&frame[4]) != 0;
        if (badAt != 0 && ofThisRound && commit && ++commitsBehind == 2) return badAt;
    }
    return std::nullopt;
}

}  // namespace apps
