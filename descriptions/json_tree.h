// A piece of JSON as a tree that knows its lines.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sd {

struct JsonNode {
    enum class Kind { Null, Bool, Number, Text, Array, Object };

    Kind kind = Kind::Null;
    int line = 0;
    std::string name{};  // of a member of an object
    std::string text{};  // of a text; of a number and a boolean as they are written
    std::vector<JsonNode> children{};
};

// firstLine: the number of the first one. Where it is no JSON, nothing, and in `line` where that shows. Brackets may be
// nested as deeply as an outline lets them.
std::optional<JsonNode> readJson(std::string_view text, int firstLine, int& line);

// JSON without the blanks between its pieces; nothing where it is none.
std::optional<std::string> compactJson(std::string_view text);

}  // namespace sd
