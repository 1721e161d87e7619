#include "descriptions/description_reader.h"

#include <algorithm>
#include <array>
#include <unordered_map>

#include "base/escaped.h"
#include "base/letter_case.h"
#include "base/limits.h"
#include "base/nearest.h"
#include "base/sdconfig_forms.h"
#include "descriptions/glob.h"
#include "descriptions/json_tree.h"
#include "descriptions/pattern.h"
#include "descriptions/value_check.h"

namespace sd {

namespace {

using Kind = JsonNode::Kind;
using Names = std::vector<std::string_view>;

constexpr std::size_t kAllowedMax = 1'000;

constexpr std::array kTypeNames{"bool", "int", "number", "string", "enum", "duration",
                                "size", "url", "path",   "color",  "json", "array"};

// What JSON Schema, and others, call them.
constexpr std::array<std::pair<std::string_view, KeyType>, 6> kOtherNames{{{"boolean", KeyType::Bool},
                                                                           {"integer", KeyType::Int},
                                                                           {"double", KeyType::Number},
                                                                           {"text", KeyType::String},
                                                                           {"uri", KeyType::Url},
                                                                           {"list", KeyType::Array}}};

std::optional<KeyType> typeNamed(std::string_view name) {
    const auto found = std::find(kTypeNames.begin(), kTypeNames.end(), name);
    if (found == kTypeNames.end()) return std::nullopt;
    return static_cast<KeyType>(found - kTypeNames.begin());
}

bool hasRange(KeyType type) {
    return type == KeyType::Int || type == KeyType::Number || type == KeyType::Duration || type == KeyType::Size;
}

bool mayHavePattern(KeyType type) {
    return type == KeyType::String || type == KeyType::Url || type == KeyType::Path;
}

// Types whose values stand in a file as JSON's own.
Kind kindOf(KeyType type) {
    switch (type) {
        case KeyType::Bool:
            return Kind::Bool;
        case KeyType::Int:
        case KeyType::Number:
            return Kind::Number;
        case KeyType::Array:
            return Kind::Array;
        default:
            return Kind::Text;
    }
}

const char* kindInWords(Kind kind) {
    static constexpr std::array kWords{"null", "true or false", "a number", "a text", "an array", "an object"};
    return kWords[static_cast<std::size_t>(kind)];
}

// "de", "pt_BR", "sr@latin": as the environment has them, without an encoding.
bool isLocale(std::string_view name) {
    constexpr std::string_view kSmall = "abcdefghijklmnopqrstuvwxyz";
    constexpr std::string_view kCapital = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    constexpr auto kNone = std::string_view::npos;
    const std::size_t language = std::min(name.find_first_not_of(kSmall), name.size());
    if (language < 2 || language > 3) return false;
    std::string_view rest = name.substr(language);
    if (rest.size() >= 3 && rest[0] == '_' && rest.substr(1, 2).find_first_not_of(kCapital) == kNone)
        rest.remove_prefix(3);
    return rest.empty() || (rest.size() > 1 && rest[0] == '@' && rest.find_first_not_of(kSmall, 1) == kNone);
}

// Why no key can be called so.
std::string unfitName(const std::string& name) {
    if (name.empty()) return "is a key without a name";
    if (name.size() > kKeyBytesMax) return "is a key longer than 64 KiB";
    if (name.find('\0') != std::string::npos) return "is a key with a zero byte";
    if (name.find('*') == std::string::npos) return "";
    return unfitGlob(name);
}

class Reader {
public:
    Reader(const OutlinedDescription& outlined, int line, std::vector<DescriptionFault>& faults)
        : mOutlined(outlined), mName(sd::nameOf(outlined)), mFaults(faults) {
        mFound.line = line;
        mFound.key = mName.value_or(std::string(outlined.name));
    }

    std::optional<KeyDescription> read() {
        const std::size_t before = mFaults.size();
        if (const auto root = readTree()) takeRoot(*root);
        return mFaults.size() == before ? std::optional(std::move(mFound)) : std::nullopt;
    }

private:
    using Members = std::unordered_map<std::string_view, const JsonNode*>;

    std::optional<JsonNode> readTree() {
        if (!mName)
            return fail(mFound.line, "", "has a name that is no JSON text", "look for a backslash in it"), std::nullopt;
        if (const std::string unfit = unfitName(mFound.key); !unfit.empty()) {
            fail(mFound.line, "", unfit, R"(name a key, or a glob as "velmar.printer.*.name")");
            return std::nullopt;
        }
        if (mOutlined.text.size() > kDescriptionBytesMax) {
            fail(mFound.line, "", "has more than 256 KiB", "shorten it: it is one key's description");
            return std::nullopt;
        }
        const std::string_view text = mOutlined.text;
        int line = 0;
        auto root =
            readJson(text, mFound.line + static_cast<int>(std::count(mOutlined.name.data(), text.data(), '\n')), line);
        if (!root)
            fail(line, "", "is no JSON, or not UTF-8, at this place",
                 "look for a comma, a quote or a bracket there, or right before");
        return root;
    }

    void takeRoot(const JsonNode& root) {
        static const Names kFields{"type",        "items", "enum",       "minimum",    "maximum",    "pattern",
                                   "default",     "unit",  "secret",     "store",      "governable", "summary",
                                   "description", "since", "deprecated", "replacedBy", "words",      "translations"};
        Members members;
        if (!isOf(Kind::Object, root, "") || !takeMembers(root, "", kFields, members)) return;
        if (!takeRule(members, "", mFound.value)) return;
        if (mFound.value.type == KeyType::Array) takeItems(members);
        takePlace(members);
        takeWords(members, "", mFound.words);
        takeHistory(members);
        takeTranslations(members);
        takeDefault(members);
    }

    // ---- What the value may be ----

    // Returns whether its type is known.
    bool takeRule(const Members& members, const std::string& prefix, ValueRule& rule) {
        const JsonNode* const type = textOf(members, "type", prefix);
        if (!type) {
            if (members.count("type") == 0)
                fail(mFound.line, prefix + "type", "is missing", "write one of " + typesInWords());
            return false;
        }
        const auto named = typeNamed(type->text);
        if (!named)
            return fail(type->line, prefix + "type", quoted(type->text) + " is no type", remedyForType(type->text));
        rule.type = *named;
        takeAllowed(members, prefix, rule);
        takeBound(members, prefix, "minimum", rule, rule.minimum);
        takeBound(members, prefix, "maximum", rule, rule.maximum);
        if (rule.minimum && rule.maximum && compareStored(rule.type, *rule.minimum, *rule.maximum) > 0)
            fail(members.at("minimum")->line, prefix + "minimum", "is more than \"maximum\", " + *rule.maximum,
                 "exchange the two");
        takePattern(members, prefix, rule);
        return true;
    }

    static std::string typesInWords() {
        std::string text;
        for (const char* name : kTypeNames) text += (text.empty() ? "" : ", ") + std::string(name);
        return text;
    }

    static std::string remedyForType(const std::string& name) {
        const auto other =
            std::find_if(kOtherNames.begin(), kOtherNames.end(), [&](const auto& one) { return one.first == name; });
        const std::string near = other != kOtherNames.end() ? sd::nameOf(other->second)
                                                            : nearest(name, {kTypeNames.begin(), kTypeNames.end()});
        return near.empty() ? "write one of " + typesInWords() : "did you mean " + quoted(near) + "?";
    }

    void takeAllowed(const Members& members, const std::string& prefix, ValueRule& rule) {
        const auto found = members.find("enum");
        const bool isEnum = rule.type == KeyType::Enum;
        if (found == members.end()) {
            if (isEnum)
                fail(mFound.line, prefix + "enum", "is missing", R"(list what is allowed: "enum": ["dark", "light"])");
            return;
        }
        const JsonNode& all = *found->second;
        if (!isEnum)
            return void(fail(all.line, prefix + "enum", "goes with the type enum alone",
                             R"(write "type": "enum", or delete it)"));
        if (!isOf(Kind::Array, all, prefix + "enum")) return;
        if (all.children.empty()) fail(all.line, prefix + "enum", "allows nothing", "list what is allowed");
        if (all.children.size() > kAllowedMax)
            return void(
                fail(all.line, prefix + "enum", "allows more than 1,000 values", "use a string with a pattern"));
        for (const JsonNode& one : all.children) {
            if (!isOf(Kind::Text, one, prefix + "enum")) continue;
            const bool isTwice = std::find(rule.allowed.begin(), rule.allowed.end(), one.text) != rule.allowed.end();
            if (isTwice) fail(one.line, prefix + "enum", "has " + quoted(one.text) + " twice", "keep one of the two");
            const bool isFit = !one.text.empty() && one.text.find('\0') == std::string::npos &&
                               forms::detail::trimmed(one.text) == one.text;
            if (!isFit)
                fail(one.line, prefix + "enum", "has a value that is empty, or has a blank at an end or a zero byte",
                     "no value can be that");
            rule.allowed.push_back(one.text);
        }
    }

    void takeBound(const Members& members, const std::string& prefix, const char* name, const ValueRule& rule,
                   std::optional<std::string>& bound) {
        const auto found = members.find(name);
        if (found == members.end()) return;
        const JsonNode& node = *found->second;
        if (!hasRange(rule.type))
            return void(fail(node.line, prefix + name,
                             std::string("makes no sense of the type ") + sd::nameOf(rule.type),
                             "delete it: int, number, duration and size have a range"));
        bound = takeValue(node, prefix + name, {rule.type});
    }

    void takePattern(const Members& members, const std::string& prefix, ValueRule& rule) {
        const JsonNode* const node = textOf(members, "pattern", prefix);
        if (!node) return;
        if (!mayHavePattern(rule.type))
            return void(fail(node->line, prefix + "pattern",
                             std::string("makes no sense of the type ") + sd::nameOf(rule.type),
                             "delete it: string, url and path have one"));
        const std::string problem =
            node->text.size() > kPatternBytesMax ? "is longer than 4 KiB" : patternProblem(node->text);
        if (!problem.empty())
            return void(fail(node->line, prefix + "pattern", problem, "write it in the syntax of RE2, or shorter"));
        rule.pattern = node->text;
    }

    void takeItems(const Members& members) {
        static const Names kFields{"type", "enum", "minimum", "maximum", "pattern"};
        const auto found = members.find("items");
        if (found == members.end())
            return void(
                fail(mFound.line, "items", "is missing", R"(say what an array is of: "items": {"type": "string"})"));
        Members inner;
        if (!isOf(Kind::Object, *found->second, "items") || !takeMembers(*found->second, "items ", kFields, inner))
            return;
        if (takeRule(inner, "items ", mFound.items) && mFound.items.type == KeyType::Array)
            fail(found->second->line, "items type", "is an array in an array", "take the type json for what is nested");
    }

    // A value of the file, in the form that is stored.
    std::optional<std::string> takeValue(const JsonNode& node, const std::string& field, const ValueRule& rule) {
        const Kind kind = kindOf(rule.type);
        if (rule.type != KeyType::Json && !isOf(kind, node, field)) return std::nullopt;
        if (node.kind == Kind::Text && node.text.empty() && rule.type != KeyType::String)
            return fail(node.line, field, "is empty", "write " + inWords(rule) + ", or delete it"), std::nullopt;
        const CheckedValue checked = checkValue(rule, rule.type == KeyType::Json ? compact(node) : node.text);
        if (checked.fits()) return checked.stored;
        fail(node.line, field, checked.what, checked.remedy);
        return std::nullopt;
    }

    static std::string compact(const JsonNode& node) {
        if (node.kind == Kind::Text) return forms::detail::printJsonText(node.text);
        if (node.kind != Kind::Array && node.kind != Kind::Object) return node.text;
        std::string text;
        for (const JsonNode& one : node.children) {
            if (!text.empty()) text += ',';
            if (node.kind == Kind::Object) text += forms::detail::printJsonText(one.name) + ":";
            text += compact(one);
        }
        return node.kind == Kind::Array ? "[" + text + "]" : "{" + text + "}";
    }

    void takeDefault(const Members& members) {
        const auto found = members.find("default");
        if (found == members.end()) return;
        const JsonNode& node = *found->second;
        if (mFound.isSecret)
            return void(fail(node.line, "default", "is a secret that everybody can read",
                             "delete it: what is secret has no default"));
        if (mFound.value.type != KeyType::Array) {
            mFound.defaultValue = takeValue(node, "default", mFound.value);
        } else if (isOf(Kind::Array, node, "default")) {
            std::vector<std::string> items;
            for (const JsonNode& one : node.children)
                if (auto item = takeValue(one, "default", mFound.items)) items.push_back(std::move(*item));
            const Kind kind = kindOf(mFound.items.type);
            mFound.defaultValue = forms::printList(items, kind == Kind::Text);
        }
    }

    // ---- Where it is kept, and who may govern it ----

    void takePlace(const Members& members) {
        takeFlag(members, "secret", mFound.isSecret);
        mFound.store = mFound.isSecret ? KeyStore::Secure : KeyStore::Property;
        if (const JsonNode* const store = textOf(members, "store", "")) {
            if (store->text != "property" && store->text != "secure")
                fail(store->line, "store", quoted(store->text) + " is no store", R"(write "property" or "secure")");
            mFound.store = store->text == "secure" ? KeyStore::Secure : KeyStore::Property;
            if (mFound.isSecret && store->text == "property")
                fail(store->line, "store", "keeps a secret where everybody can read it",
                     R"(write "store": "secure", or delete "secret")");
        }
        mFound.isGovernable = mFound.store == KeyStore::Secure;
        takeFlag(members, "governable", mFound.isGovernable);
        if (mFound.isGovernable && mFound.store == KeyStore::Property)
            fail(members.at("governable")->line, "governable", "is true of a property, which no policy governs",
                 R"(write "store": "secure", or delete it)");
    }

    // ---- For people ----

    void takeWords(const Members& members, const std::string& prefix, KeyWords& words) {
        takeText(members, "summary", prefix, words.summary);
        takeText(members, "description", prefix, words.description);
        takeText(members, "unit", prefix, words.unit);
        if (words.summary.find('\n') != std::string::npos)
            fail(members.at("summary")->line, prefix + "summary", "has several lines",
                 "say it in one, and the rest in \"description\"");
        const KeyType type = ofItems().type;
        if (!words.unit.empty() && type != KeyType::Int && type != KeyType::Number)
            fail(members.at("unit")->line, prefix + "unit",
                 std::string("makes no sense of the type ") + sd::nameOf(type),
                 "delete it: int and number have one; a duration and a size bring theirs");
        takeValueWords(members, prefix, words);
    }

    void takeValueWords(const Members& members, const std::string& prefix, KeyWords& words) {
        const auto found = members.find("words");
        if (found == members.end() || !isOf(Kind::Object, *found->second, prefix + "words")) return;
        const std::vector<std::string>& allowed = ofItems().allowed;
        for (const JsonNode& word : found->second->children) {
            if (!isOf(Kind::Text, word, prefix + "words")) continue;
            if (std::find(allowed.begin(), allowed.end(), word.name) == allowed.end())
                fail(word.line, prefix + "words",
                     "has words for " + quoted(word.name) + ", which \"enum\" doesn't allow",
                     meant(word.name, {allowed.begin(), allowed.end()}));
            else if (!words.values.emplace(word.name, word.text).second)
                fail(word.line, prefix + "words", "has words for " + quoted(word.name) + " twice",
                     "keep one of the two");
        }
    }

    const ValueRule& ofItems() const { return mFound.value.type == KeyType::Array ? mFound.items : mFound.value; }

    void takeHistory(const Members& members) {
        takeText(members, "since", "", mFound.since);
        takeFlag(members, "deprecated", mFound.isDeprecated);
        takeText(members, "replacedBy", "", mFound.replacedBy);
        if (mFound.replacedBy.empty()) return;
        const int line = members.at("replacedBy")->line;
        if (!mFound.isDeprecated)
            fail(line, "replacedBy", "stands without \"deprecated\"", R"(add "deprecated": true)");
        if (mFound.replacedBy == mFound.key) fail(line, "replacedBy", "is the key itself", "name the other one");
    }

    void takeTranslations(const Members& members) {
        static const Names kFields{"summary", "description", "unit", "words"};
        const auto found = members.find("translations");
        if (found == members.end() || !isOf(Kind::Object, *found->second, "translations")) return;
        for (const JsonNode& one : found->second->children) {
            const std::string prefix = "translations " + one.name + " ";
            if (!isLocale(one.name)) {
                fail(one.line, "translations", quoted(one.name) + " is no locale",
                     R"(write it as "de", "pt_BR" or "sr@latin")");
                continue;
            }
            KeyWords words;
            Members inner;
            if (!isOf(Kind::Object, one, "translations " + one.name) || !takeMembers(one, prefix, kFields, inner))
                continue;
            takeWords(inner, prefix, words);
            if (!mFound.translations.emplace(one.name, std::move(words)).second)
                fail(one.line, "translations", quoted(one.name) + " stands there twice", "put both into one");
        }
    }

    // ---- Fields ----

    // False where there are others, or one twice.
    bool takeMembers(const JsonNode& object, const std::string& prefix, const Names& known, Members& members) {
        const std::size_t before = mFaults.size();
        for (const JsonNode& one : object.children) {
            if (std::find(known.begin(), known.end(), one.name) == known.end())
                fail(one.line, prefix + one.name, "is no field of a description", meant(one.name, known));
            else if (!members.emplace(one.name, &one).second)
                fail(one.line, prefix + one.name, "stands there twice", "keep one of the two");
        }
        return mFaults.size() == before;
    }

    static std::string meant(const std::string& name, const Names& known) {
        const std::string near = nearest(name, known);
        return near.empty() ? "correct its name, or delete it" : "did you mean " + quoted(near) + "?";
    }

    const JsonNode* textOf(const Members& members, const char* name, const std::string& prefix) {
        const auto found = members.find(name);
        return found != members.end() && isOf(Kind::Text, *found->second, prefix + name) ? found->second : nullptr;
    }

    void takeText(const Members& members, const char* name, const std::string& prefix, std::string& text) {
        if (const JsonNode* const node = textOf(members, name, prefix)) text = node->text;
    }

    void takeFlag(const Members& members, const char* name, bool& flag) {
        const auto found = members.find(name);
        if (found != members.end() && isOf(Kind::Bool, *found->second, name)) flag = found->second->text == "true";
    }

    bool isOf(Kind kind, const JsonNode& node, const std::string& field) {
        if (node.kind == kind) return true;
        const std::string remedy =
            kind == Kind::Text ? "write it between quotation marks"
                               : std::string("write ") + kindInWords(kind) +
                                     (kind == Kind::Bool || kind == Kind::Number ? ", without quotation marks" : "");
        return fail(node.line, field,
                    std::string("is ") + kindInWords(node.kind) + "; it has to be " + kindInWords(kind), remedy);
    }

    bool fail(int line, const std::string& field, std::string what, std::string remedy) {
        mFaults.push_back({line, mFound.key, field, std::move(what), std::move(remedy)});
        return false;
    }

    const OutlinedDescription& mOutlined;
    const std::optional<std::string> mName;
    KeyDescription mFound;
    std::vector<DescriptionFault>& mFaults;
};

}  // namespace

const char* nameOf(KeyType type) {
    return kTypeNames[static_cast<std::size_t>(type)];
}

std::string DescriptionFault::place() const {
    return (line == 0 ? "" : "line " + std::to_string(line)) + (key.empty() ? "" : ", " + quoted(key)) +
           (field.empty() ? "" : ", " + quoted(field));
}

std::optional<std::string> nameOf(const OutlinedDescription& outlined) {
    const bool isPlain = outlined.name.find('\\') == std::string_view::npos &&
                         std::none_of(outlined.name.begin(), outlined.name.end(),
                                      [](char c) { return static_cast<unsigned char>(c) < ' '; });
    if (isPlain) return isUtf8(std::string(outlined.name)) ? std::optional(std::string(outlined.name)) : std::nullopt;
    int line = 0;
    const auto text = readJson({outlined.name.data() - 1, outlined.name.size() + 2}, 1, line);
    return text ? std::optional(text->text) : std::nullopt;
}

std::optional<KeyDescription> readDescription(const OutlinedDescription& outlined, int line,
                                              std::vector<DescriptionFault>& faults) {
    return Reader(outlined, line, faults).read();
}

DescriptionFile readDescriptions(std::string_view text) {
    const Outline outline = outlineOf(text);
    if (outline.fault) return {{}, {*outline.fault}};
    DescriptionFile file;
    LineCounter lines(text);
    std::unordered_map<std::string, int> known;  // by the key without letter case
    for (const OutlinedDescription& one : outline.descriptions) {
        auto description = readDescription(one, lines.lineOf(one.name), file.faults);
        if (!description) continue;
        const auto [first, isNew] = known.emplace(folded(description->key), description->line);
        if (isNew)
            file.descriptions.push_back(std::move(*description));
        else
            file.faults.push_back(
                {description->line, description->key, "",
                 "is described in line " + std::to_string(first->second) + " already, perhaps in another letter case",
                 "keep one of the two"});
    }
    return file;
}

}  // namespace sd
