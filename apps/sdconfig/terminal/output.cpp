#include "apps/sdconfig/terminal/output.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "apps/common/escaped.h"
#include "apps/sdconfig/terminal/messages.h"
#include "base/base64.h"

namespace cli {

namespace {

Object valueObject(const char* keyName, const std::string& key, bool set, const std::optional<std::string>& value) {
    Object object;
    addBytes(object, keyName, key);
    object["set"] = set;
    value ? addBytes(object, "value", *value) : void(object["value"] = nullptr);
    return object;
}

}  // namespace

bool isTerminal() {
    static const bool sIs = ::isatty(STDOUT_FILENO) != 0;
    return sIs;
}

// The library that prints decides what it can print.
bool fitsJson(const std::string& bytes) {
    try {
        (void)nlohmann::json(bytes).dump();
        return true;
    } catch (const nlohmann::json::type_error&) {
        return false;
    }
}

void addBytes(Object& object, const std::string& name, const std::string& bytes) {
    if (fitsJson(bytes)) {
        object[name] = bytes;
    } else {
        object[name + "_base64"] = sd::toBase64(bytes);
    }
}

std::string lineOf(const Object& object) {
    return apps::escapedInJson(object.dump()) + "\n";
}

int printText(const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (written >= 0) {
            done += static_cast<std::size_t>(written);
        } else if (errno == EPIPE) {
            return kDone;
        } else if (errno != EINTR) {
            return notPrinted(std::strerror(errno));
        }
    }
    return kDone;
}

int print(const Request& request, const std::string& text, const Object& object) {
    return printText(request.json ? lineOf(object) : text);
}

std::string shown(const std::string& text) {
    return isTerminal() ? escaped(text) : text;
}

std::string shownInLine(const std::string& text) {
    if (isTerminal()) return escaped(text);
    std::string line;
    for (const char c : text) line += c == '\n' || c == '\t' ? escaped({c}) : std::string(1, c);
    return line;
}

std::string inQuotes(const std::string& text) {
    return '"' + shownInLine(text) + '"';
}

int printValue(const Request& request, const char* keyName, const std::string& value,
               int (*whenUnset)(const Request&)) {
    const bool set = !value.empty();
    const Object object = valueObject(keyName, request.key, set, set ? std::optional(value) : std::nullopt);
    const int printed = print(request, set ? shown(value) + "\n" : "", object);
    return set ? printed : whenUnset(request);
}

int printValues(const Request& request, bool alone, const std::vector<Lookup>& found,
                int (*whenUnset)(const Request&)) {
    std::string text;
    std::vector<Lookup> missing;
    for (const Lookup& lookup : found) {
        const auto& [key, value, isUnopenable] = lookup;
        const bool fallsBack = request.fallbackGiven && !isUnopenable;
        std::optional<std::string> result = value;
        if (value.empty()) result = fallsBack ? std::optional(request.fallback) : std::nullopt;
        if (!result) missing.push_back(lookup);
        if (request.json)
            text += lineOf(valueObject("key", key, !value.empty(), result));
        else if (result)
            text += alone ? shown(*result) + "\n" : shownInLine(key) + "=" + shownInLine(*result) + "\n";
    }
    int code = printText(text);
    for (const Lookup& lookup : missing) {
        Request one = request;
        one.key = lookup.key;
        code = lookup.isUnopenable ? unopenable(one) : whenUnset(one);
    }
    return code;
}

int printDone(const Request& request, bool done, int (*whenRefused)(const Request&)) {
    Object object;
    addBytes(object, "key", request.key);
    object["done"] = done;
    const int printed = print(request, "", object);
    return done ? printed : whenRefused(request);
}

}  // namespace cli
