#include "apps/sdconfig/described/description_output.h"

#include "apps/sdconfig/described/described_keys.h"
#include "apps/sdconfig/terminal/messages.h"
#include "descriptions/value_check.h"
#include "descriptions/words.h"

namespace cli {

namespace {

using sd::KeyDescription;
using sd::KeyType;
using sd::KeyWords;

// A line each, indented.
std::string indented(const std::string& text) {
    std::string lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        lines += "  " + escaped(text.substr(begin, end - begin)) + "\n";
        begin = end + 1;
    }
    return lines;
}

std::string field(const char* name, const std::string& text) {
    return text.empty() ? "" : "  " + std::string(name) + ": " + shownInLine(text) + "\n";
}

const sd::ValueRule& singleRule(const KeyDescription& description) {
    return description.value.type == KeyType::Array ? description.items : description.value;
}

std::string typeText(const KeyDescription& description, const KeyWords& words) {
    const std::string type = sd::nameOf(description.value.type);
    const std::string unit = words.unit.empty() ? "" : ", in " + words.unit;
    const bool isPlain = description.value.type == KeyType::String || description.value.type == KeyType::Enum;
    return isPlain ? type : type + ": " + sd::inWords(description) + unit;
}

std::string allowedText(const KeyDescription& description, const KeyWords& words) {
    std::string text;
    for (const std::string& value : singleRule(description).allowed) {
        const auto meaning = words.values.find(value);
        text += "    " + shownInLine(value) +
                (meaning == words.values.end() ? "" : ": " + shownInLine(meaning->second)) + "\n";
    }
    return text.empty() ? "" : "  allowed:\n" + text;
}

std::string keptText(const KeyDescription& description) {
    if (description.store == sd::KeyStore::Property) return "a property";
    return std::string(description.isSecret ? "a secret, among the secure values" : "a secure value") +
           (description.isGovernable ? ", which policies may govern" : ", which no policy may govern");
}

std::string deprecatedText(const KeyDescription& description) {
    if (!description.isDeprecated) return "";
    return description.replacedBy.empty() ? "without another in its place" : "use " + description.replacedBy;
}

void addText(Object& object, const char* name, const std::string& text) {
    if (!text.empty()) addBytes(object, name, text);
}

Object ruleObject(const sd::ValueRule& rule) {
    Object object{{"type", sd::nameOf(rule.type)}};
    if (rule.minimum) object["minimum"] = *rule.minimum;
    if (rule.maximum) object["maximum"] = *rule.maximum;
    addText(object, "pattern", rule.pattern);
    if (!rule.allowed.empty()) object["enum"] = rule.allowed;
    return object;
}

}  // namespace

KeyWords localWords(const KeyDescription& description) {
    static const std::vector<std::string> sLocales = sd::wantedLocales();
    return sd::wordsIn(sLocales, description);
}

std::string textOf(const sd::Descriptions::Found& found, const std::string& key) {
    const KeyDescription& description = found.description;
    const KeyWords words = localWords(description);
    return shownInLine(key) + (words.summary.empty() ? "" : ": " + shownInLine(words.summary)) + "\n" +
           indented(words.description) + field("type", typeText(description, words)) + allowedText(description, words) +
           field("pattern", singleRule(description).pattern) +
           (description.defaultValue ? "  default: " + inQuotes(*description.defaultValue) + "\n" : "") +
           field("kept as", keptText(description)) + field("since", description.since) +
           field("deprecated", deprecatedText(description)) +
           field("described as", key == description.key ? "" : description.key) + field("described in", placeOf(found));
}

std::string lineOf(const sd::Descriptions::Found& found) {
    const KeyDescription& description = found.description;
    return shownInLine(description.key) + "\t" + sd::nameOf(description.value.type) + "\t" +
           (description.defaultValue ? shownInLine(*description.defaultValue) : "-") + "\t" +
           shownInLine(localWords(description).summary) + "\n";
}

Object objectOf(const sd::Descriptions::Found& found, const std::string& key) {
    const KeyDescription& description = found.description;
    const KeyWords words = localWords(description);
    Object object;
    addBytes(object, "key", key);
    object.update(ruleObject(description.value));
    if (description.value.type == KeyType::Array) object["items"] = ruleObject(description.items);
    object["default"] = description.defaultValue ? Object(*description.defaultValue) : Object();
    object["store"] = description.store == sd::KeyStore::Secure ? "secure" : "property";
    object["secret"] = description.isSecret;
    object["governable"] = description.isGovernable;
    addText(object, "unit", words.unit);
    addText(object, "summary", words.summary);
    addText(object, "description", words.description);
    for (const auto& [value, meaning] : words.values) object["words"][value] = meaning;
    addText(object, "since", description.since);
    object["deprecated"] = description.isDeprecated;
    addText(object, "replaced_by", description.replacedBy);
    if (key != description.key) addBytes(object, "glob", description.key);
    addBytes(object, "file", found.file);
    object["line"] = description.line;
    return object;
}

}  // namespace cli
