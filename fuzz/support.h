// Pieces that the fuzz targets share.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/velmarlog/velmarlog.h"

namespace fuzz {

// What the fuzzer takes for a finding.
inline void expect(bool holds, const char* property) {
    if (holds) return;
    std::fprintf(stderr, "broken: %s\n", property);
    std::abort();
}

inline std::string text(const uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// A folder of the process's own below $TMPDIR, which scripts/fuzz puts into memory and removes: a run that ends in a
// finding removes nothing itself.
inline std::string makeFolder() {
    std::string folder = (std::filesystem::temp_directory_path() / "fuzz.XXXXXX").string();
    expect(::mkdtemp(folder.data()) != nullptr, "a temporary folder can be made");
    return folder;
}

// Log lines are formatted, since that can go wrong too, but shown nowhere.
inline void hideLog() {
    velmarLogSetLevel(0);
    velmarLogSetSink([](int, const char*, const std::string&) {});
}

}  // namespace fuzz
