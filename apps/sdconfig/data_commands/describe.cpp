// describe: what keys are for, and what their values may be.
#include <algorithm>

#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/described/described_keys.h"
#include "apps/sdconfig/described/description_output.h"
#include "apps/sdconfig/request/key_pattern.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "descriptions/glob.h"

namespace cli {

namespace {

bool standsForKeys(const std::string& text) {
    return text.find('*') != std::string::npos;
}

// pattern: "" for all.
bool isMeant(const std::string& key, const std::string& pattern) {
    return pattern.empty() || fits(key, pattern) || sd::fitsGlob(key, pattern, sd::LetterCase::Told);
}

int printNames(const Request& request, const sd::Descriptions& descriptions) {
    std::string text;
    Object object{{"keys", Object::array()}};
    for (const std::string& name : descriptions.names()) {
        if (!isMeant(name, request.key)) continue;
        text += shownInLine(name) + "\n";
        Object one;
        addBytes(one, "key", name);
        object["keys"].push_back(std::move(one));
    }
    return print(request, text, object);
}

int printList(const Request& request, sd::Descriptions& descriptions) {
    std::string text;
    Object object{{"keys", Object::array()}};
    for (const auto& found : descriptions.all()) {
        if (!isMeant(found.description.key, request.key)) continue;
        text += lineOf(found);
        object["keys"].push_back(objectOf(found, found.description.key));
    }
    noteLeftOut(descriptions);
    if (text.empty() && !request.key.empty()) return notDescribed(request, "");
    return print(request, text, object);
}

// Of a type with few of them.
std::vector<std::string> valuesOf(const sd::KeyDescription& description) {
    if (description.value.type == sd::KeyType::Bool) return {"true", "false"};
    return description.value.allowed;
}

int printValues(const Request& request, const sd::KeyDescription& description) {
    std::string text;
    Object object;
    addBytes(object, "key", request.key);
    object["values"] = valuesOf(description);
    for (const std::string& value : valuesOf(description)) text += shownInLine(value) + "\n";
    return print(request, text, object);
}

int describeOne(const Request& request, sd::Descriptions& descriptions) {
    const auto found = descriptions.find(request.key);
    noteLeftOut(descriptions);
    if (!found) return notDescribed(request, descriptions.near(request.key));
    if (request.values) return printValues(request, found->description);
    return print(request, textOf(*found, request.key), Object{{"keys", {objectOf(*found, request.key)}}});
}

}  // namespace

int describeKeys(const Request& request, Service& /*service*/) {
    const bool isOne = request.keyGiven && !standsForKeys(request.key);
    if (request.names && request.values) return misused(request.command, "--names and --values exclude each other");
    if (request.values && !isOne) return misused(request.command, "--values is about one KEY");
    sd::Descriptions descriptions = describedKeys(request);
    if (request.names) return printNames(request, descriptions);
    return isOne ? describeOne(request, descriptions) : printList(request, descriptions);
}

}  // namespace cli
