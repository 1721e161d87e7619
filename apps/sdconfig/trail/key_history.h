// Who gave the layers of a key what they hold, as the trail has it.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "apps/sdconfig/terminal/output.h"
#include "trail/reader.h"

namespace cli {

enum class Layer : std::size_t { Local, Policy, Machine, Property };
inline constexpr std::size_t kLayers = 4;

struct KeyHistory {
    std::array<std::optional<sd::trail::Line>, kLayers> last;  // the last change of each layer
    std::uint64_t from = 0;                                    // the oldest entry that was looked at; 0: there is none
    bool isUnread = false;                                     // something of the trail can't be read
};

// Looks through the latest entries of the folder's trail, some hundred thousand at most.
KeyHistory historyOf(const std::string& folder, const std::string& key);

// The latest change of the key, whatever layer it was in, among the last few entries.
std::optional<sd::trail::Line> lastChangeOf(const std::string& folder, const std::string& key);

// A line a layer, beneath a heading; "" without a trail.
std::string textOf(const KeyHistory& history);
Object objectOf(const KeyHistory& history);

}  // namespace cli
