#include "descriptions/value_check.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "base/escaped.h"
#include "base/letter_case.h"
#include "base/nearest.h"
#include "base/sdconfig_forms.h"
#include "descriptions/json_tree.h"
#include "descriptions/pattern.h"

namespace sd {

namespace {

constexpr char kDurationUnits[] = "w, d, h, m, s or ms";

CheckedValue unfit(std::string what, std::string remedy) {
    return {"", std::move(what), std::move(remedy)};
}

CheckedValue stored(std::string text) {
    return {std::move(text), "", ""};
}

bool isAllDigits(std::string_view text) {
    text = forms::detail::trimmed(text);
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
    return !text.empty() && std::all_of(text.begin(), text.end(), forms::detail::isDigit);
}

std::string rangeInWords(const ValueRule& rule) {
    if (rule.minimum && rule.maximum) return " from " + *rule.minimum + " to " + *rule.maximum;
    if (rule.minimum) return " of at least " + *rule.minimum;
    return rule.maximum ? " of at most " + *rule.maximum : "";
}

std::string listed(const std::vector<std::string>& values) {
    constexpr std::size_t kShown = 12;
    std::string text;
    for (std::size_t i = 0; i < std::min(values.size(), kShown); ++i) {
        if (i > 0) text += i + 1 == values.size() ? " or " : ", ";
        text += quoted(values[i]);
    }
    return values.size() > kShown ? text + ", or one of " + std::to_string(values.size() - kShown) + " more" : text;
}

CheckedValue unfitFor(const ValueRule& rule, std::string what) {
    return unfit(std::move(what), "write " + inWords(rule));
}

CheckedValue inRange(const ValueRule& rule, std::string text) {
    if (rule.minimum && compareStored(rule.type, text, *rule.minimum) < 0)
        return unfitFor(rule, "is less than the smallest, " + *rule.minimum);
    if (rule.maximum && compareStored(rule.type, text, *rule.maximum) > 0)
        return unfitFor(rule, "is more than the largest, " + *rule.maximum);
    return stored(std::move(text));
}

CheckedValue checkInt(const ValueRule& rule, const std::string& text) {
    if (const auto number = forms::parseInt(text)) return inRange(rule, forms::printInt(*number));
    if (isAllDigits(text)) return unfitFor(rule, "is beyond 64 bits");
    return unfitFor(rule, "is no whole number");
}

CheckedValue checkNumber(const ValueRule& rule, const std::string& text) {
    if (const auto number = forms::parseNumber(text)) return inRange(rule, forms::printNumber(*number));
    const std::string what = "is no number";
    return text.find(',') == std::string::npos ? unfitFor(rule, what) : unfit(what, "write a point, not a comma");
}

CheckedValue checkDuration(const ValueRule& rule, const std::string& text) {
    if (const auto duration = forms::parseDuration(text)) return inRange(rule, forms::printDuration(*duration));
    if (forms::parseNumber(text))
        return unfit("has no unit", std::string("put one behind the number: ") + kDurationUnits);
    return unfitFor(rule, "is no duration");
}

CheckedValue checkSize(const ValueRule& rule, const std::string& text) {
    if (const auto size = forms::parseSize(text)) return inRange(rule, forms::printSize(*size));
    return unfitFor(rule, "is no size in whole bytes");
}

CheckedValue checkEnum(const ValueRule& rule, const std::string& text) {
    const std::string word(forms::detail::trimmed(text));
    const auto& allowed = rule.allowed;
    if (std::find(allowed.begin(), allowed.end(), word) != allowed.end()) return stored(word);
    const auto isSame = [&word](const std::string& one) { return compareFolded(one, word) == 0; };
    const auto same = std::find_if(allowed.begin(), allowed.end(), isSame);
    if (same != allowed.end() && std::count_if(allowed.begin(), allowed.end(), isSame) == 1) return stored(*same);
    const std::string near = nearest(word, {allowed.begin(), allowed.end()});
    const std::string hint = near.empty() ? "" : "did you mean " + quoted(near) + "? ";
    return unfit("is none of the allowed values", hint + "write " + inWords(rule));
}

bool isSchemeCharacter(char c) {
    return (folded(c) >= 'a' && folded(c) <= 'z') || forms::detail::isDigit(c) || c == '+' || c == '-' || c == '.';
}

// What no URL holds; bytes beyond ASCII are let through, as people write them.
bool isNoUrlCharacter(char c) {
    return (static_cast<unsigned char>(c) <= ' ') || c == 0x7f ||
           std::string_view("\"<>\\^`{|}").find(c) != std::string_view::npos;
}

bool hasBadEscape(std::string_view text) {
    constexpr std::string_view kHex = "0123456789abcdefABCDEF";
    for (std::size_t i = text.find('%'); i != std::string_view::npos; i = text.find('%', i + 1))
        if (i + 2 >= text.size() || kHex.find(text[i + 1]) == std::string_view::npos ||
            kHex.find(text[i + 2]) == std::string_view::npos)
            return true;
    return false;
}

// Behind "//": [user@]host[:port].
CheckedValue checkAuthority(const ValueRule& rule, const std::string& scheme, const std::string& rest) {
    const std::size_t end = std::min(rest.find_first_of("/?#", 2), rest.size());
    const std::string authority = rest.substr(2, end - 2);
    const std::size_t at = authority.rfind('@');
    const std::size_t host = at == std::string::npos ? 0 : at + 1;
    const std::size_t bracket = authority.find(']', host);
    const std::size_t colon = authority.find(':', bracket == std::string::npos ? host : bracket);
    const std::string port = colon == std::string::npos ? "" : authority.substr(colon + 1);
    if (const auto number = forms::parseInt(port);
        !port.empty() && (!number || *number > 65535 || !forms::detail::isDigit(port.front())))
        return unfit("has a port that is none", "write one from 1 to 65535, or leave it out");
    const std::string name = folded(authority.substr(host, std::min(colon, authority.size()) - host));
    if (name.empty() && scheme != "file") return unfitFor(rule, "has no host");
    return stored(scheme + "://" + authority.substr(0, host) + name + (port.empty() ? "" : ":" + port) +
                  rest.substr(end));
}

CheckedValue checkUrl(const ValueRule& rule, const std::string& text) {
    const std::string url(forms::detail::trimmed(text));
    const std::size_t colon = std::min(url.find(':'), url.size());
    const std::string scheme = folded(url.substr(0, colon));
    const bool hasScheme = colon < url.size() && colon > 0 && folded(url[0]) >= 'a' && folded(url[0]) <= 'z' &&
                           std::all_of(scheme.begin(), scheme.end(), isSchemeCharacter);
    if (!hasScheme) return unfitFor(rule, "has no scheme");
    if (std::any_of(url.begin(), url.end(), isNoUrlCharacter))
        return unfit("has a blank, or another character that no URL holds", "write it as % and two digits, as %20");
    if (hasBadEscape(url)) return unfit("has a % without two digits behind it", "write %25 for the sign itself");
    const std::string rest = url.substr(colon + 1);
    if (rest.compare(0, 2, "//") == 0) return checkAuthority(rule, scheme, rest);
    static constexpr std::array<std::string_view, 6> kWithHost{"http", "https", "ftp", "ws", "wss", "ldap"};
    const bool needsHost = std::find(kWithHost.begin(), kWithHost.end(), scheme) != kWithHost.end();
    return rest.empty() || needsHost ? unfitFor(rule, "has no host") : stored(scheme + ":" + rest);
}

// Without what leads nowhere else. ".." stays: behind a link it leads elsewhere than the text tells.
CheckedValue checkPath(const ValueRule& rule, const std::string& text) {
    if (text.front() == '~') return unfit("begins with ~, which a shell alone knows", "write the folder out");
    if (text.front() != '/') return unfitFor(rule, "is no absolute path");
    std::string path;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('/', begin), text.size());
        const std::string name = text.substr(begin, end - begin);
        if (!name.empty() && name != ".") path += "/" + name;
        begin = end + 1;
    }
    return stored(path.empty() ? "/" : path);
}

CheckedValue checkForm(const ValueRule& rule, const std::string& text) {
    switch (rule.type) {
        case KeyType::Bool:
            if (const auto value = forms::parseBool(text)) return stored(forms::printBool(*value));
            return unfitFor(rule, "is neither true nor false");
        case KeyType::Int:
            return checkInt(rule, text);
        case KeyType::Number:
            return checkNumber(rule, text);
        case KeyType::Enum:
            return checkEnum(rule, text);
        case KeyType::Duration:
            return checkDuration(rule, text);
        case KeyType::Size:
            return checkSize(rule, text);
        case KeyType::Url:
            return checkUrl(rule, text);
        case KeyType::Path:
            return checkPath(rule, text);
        case KeyType::Color:
            if (const auto color = forms::parseColor(text)) return stored(forms::printColor(*color));
            return unfitFor(rule, "is no color");
        case KeyType::Json:
            if (const auto compact = compactJson(text)) return stored(*compact);
            return unfitFor(rule, "is no JSON");
        default:
            return stored(text);
    }
}

bool isBare(KeyType type) {
    return type == KeyType::Bool || type == KeyType::Int || type == KeyType::Number;
}

// What stands between commas.
std::vector<std::string> splitItems(const std::string& text) {
    std::vector<std::string> items;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(',', begin), text.size());
        items.emplace_back(forms::detail::trimmed(std::string_view(text).substr(begin, end - begin)));
        begin = end + 1;
    }
    return items;
}

CheckedValue checkArray(const KeyDescription& description, const std::string& text) {
    const std::string_view list = forms::detail::trimmed(text);
    auto items = !list.empty() && list.front() == '[' ? forms::parseList(list) : splitItems(text);
    if (!items) return unfitFor(description.value, "is no JSON array of texts, numbers and booleans");
    for (std::size_t i = 0; i < items->size(); ++i) {
        std::string& item = (*items)[i];
        // Inside of an array nothing stands for no value.
        CheckedValue one = item.empty() && description.items.type != KeyType::String
                               ? unfitFor(description.items, "is empty")
                               : checkValue(description.items, item);
        if (!one.fits())
            return unfit("has an item, number " + std::to_string(i + 1) + ", that " + one.what, one.remedy);
        item = std::move(one.stored);
    }
    return stored(forms::printList(*items, !isBare(description.items.type)));
}

}  // namespace

CheckedValue checkValue(const ValueRule& rule, const std::string& text) {
    if (text.empty()) return stored("");
    if (text.find('\0') != std::string::npos)
        return unfit("has a zero byte, behind which nothing is kept", "encode it as text, in base64 for example");
    CheckedValue checked = checkForm(rule, text);
    if (!checked.fits() || rule.pattern.empty() || hasPattern(checked.stored, rule.pattern)) return checked;
    return unfit("does not fit the pattern " + quoted(rule.pattern),
                 "write " + inWords(rule) + " in which it is found");
}

CheckedValue checkValue(const KeyDescription& description, const std::string& text) {
    const bool isArray = description.value.type == KeyType::Array && !text.empty();
    return isArray ? checkArray(description, text) : checkValue(description.value, text);
}

int compareStored(KeyType type, const std::string& one, const std::string& other) {
    const auto compare = [&](auto parse) {
        const auto a = parse(one);
        const auto b = parse(other);
        return a < b ? -1 : b < a ? 1 : 0;
    };
    switch (type) {
        case KeyType::Number:
            return compare(forms::parseNumber);
        case KeyType::Duration:
            return compare(forms::parseDuration);
        case KeyType::Size:
            return compare(forms::parseSize);
        default:
            return compare(forms::parseInt);
    }
}

std::string inWords(const ValueRule& rule) {
    const std::string range = rangeInWords(rule);
    switch (rule.type) {
        case KeyType::Bool:
            return "true or false";
        case KeyType::Int:
            return "a whole number" + range;
        case KeyType::Number:
            return "a number" + range;
        case KeyType::Enum:
            return listed(rule.allowed);
        case KeyType::Duration:
            return "a duration" + range + ", in " + kDurationUnits + ", as 1h30m";
        case KeyType::Size:
            return "a size" + range + ", as 512B, 64KiB or 10MB";
        case KeyType::Url:
            return "a URL with its scheme, as https://host/path";
        case KeyType::Path:
            return "an absolute path, as /var/lib/velmar";
        case KeyType::Color:
            return "a color, as #rrggbb or #rrggbbaa";
        case KeyType::Json:
            return "a JSON value";
        case KeyType::Array:
            return R"(a JSON array, as ["a","b"], or items between commas)";
        default:
            return "a text";
    }
}

std::string inWords(const KeyDescription& description) {
    if (description.value.type == KeyType::Array) return "a list, each item of it " + inWords(description.items);
    return inWords(description.value);
}

}  // namespace sd
