#include "descriptions/json_tree.h"

#include <cstdint>
#include <nlohmann/json.hpp>

#include "base/tracked_text.h"

namespace sd {

namespace {

using nlohmann::json;
using Kind = JsonNode::Kind;

// Takes the parser's events.
class TreeBuilder {
public:
    explicit TreeBuilder(const TextPosition& position) : mPosition(position) {}

    bool null() { return add(Kind::Null, "null"); }
    bool boolean(bool value) { return add(Kind::Bool, value ? "true" : "false"); }
    bool number_integer(json::number_integer_t number) { return add(Kind::Number, std::to_string(number)); }
    bool number_unsigned(json::number_unsigned_t number) { return add(Kind::Number, std::to_string(number)); }
    bool number_float(json::number_float_t, const std::string& written) { return add(Kind::Number, written); }
    bool string(std::string& text) { return add(Kind::Text, std::move(text)); }
    bool binary(json::binary_t&) { return false; }
    bool key(std::string& name) {
        mName = std::move(name);
        return true;
    }
    bool start_object(std::size_t) { return open(Kind::Object); }
    bool start_array(std::size_t) { return open(Kind::Array); }
    bool end_object() { return close(); }
    bool end_array() { return close(); }
    bool parse_error(std::size_t, const std::string&, const json::exception&) { return false; }

    JsonNode take() { return std::move(mRoot); }

private:
    bool add(Kind kind, std::string text) {
        JsonNode* node = &mRoot;
        if (!mOpen.empty()) node = &mOpen.back()->children.emplace_back();
        node->kind = kind;
        node->line = mPosition.lineOfToken();
        node->name = std::move(mName);
        node->text = std::move(text);
        mLast = node;
        return true;
    }
    bool open(Kind kind) {
        add(kind, "");
        mOpen.push_back(mLast);  // stays where it is until it is closed: nothing is added beside it
        return true;
    }
    bool close() {
        mOpen.pop_back();
        return true;
    }

    const TextPosition& mPosition;
    JsonNode mRoot;
    std::vector<JsonNode*> mOpen;
    JsonNode* mLast = nullptr;
    std::string mName;
};

}  // namespace

std::optional<JsonNode> readJson(std::string_view text, int firstLine, int& line) {
    TextPosition position{firstLine};
    TreeBuilder builder(position);
    const char* const end = text.data() + text.size();
    const bool isRead =
        json::sax_parse(TrackingIterator(text.data(), end, &position), TrackingIterator(end, end, &position), &builder);
    line = position.lineOfToken();
    return isRead ? std::optional(builder.take()) : std::nullopt;
}

std::optional<std::string> compactJson(std::string_view text) {
    if (!json::accept(text)) return std::nullopt;
    std::string compact;
    bool isInText = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (!isInText && (c == ' ' || c == '\t' || c == '\n' || c == '\r')) continue;
        compact += c;
        if (c == '"') isInText = !isInText;
        if (c == '\\') compact += text[++i];  // stands in a text alone, and never at its end
    }
    return compact;
}

}  // namespace sd
