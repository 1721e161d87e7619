// What descriptions say of the keys, and which of these get a line although nothing is set.
#include <algorithm>

#include "apps/sdconfig/described/description_output.h"
#include "apps/sdconfig/report/gather_parts.h"
#include "apps/sdconfig/request/letter_case.h"
#include "descriptions/value_check.h"

namespace cli {

namespace {

// Why it is none of the key's. What isn't shown isn't told by its faults either.
std::string misfitOf(const ReportedKey& one, const sd::KeyDescription& description, const std::string& value) {
    if (one.value.kind == ReportedValue::Kind::None) return "";
    const bool isOfProperty = description.store == sd::KeyStore::Property;
    if (isOfProperty != one.isProperty)
        return isOfProperty ? "the key is one of a property" : "the key is one of a secure value";
    const sd::CheckedValue checked = sd::checkValue(description, value);
    if (checked.fits()) return "";
    if (one.value.kind == ReportedValue::Kind::Hidden) return "see why: " + typed("explain " + asArgument(one.key));
    return "it " + checked.what + "; " + checked.remedy;
}

// "": any text.
std::string valuesIn(const sd::KeyDescription& description, const sd::KeyWords& words) {
    const std::string& pattern = description.value.pattern;
    const bool isAny = description.value.type == sd::KeyType::String && pattern.empty();
    std::string text = isAny ? "" : sd::inWords(description);
    if (!pattern.empty()) text += " in which " + pattern + " is found";
    if (!words.unit.empty()) text += ", in " + words.unit;
    for (const auto& [value, meaning] : words.values) text.append("; ").append(value).append(": ").append(meaning);
    return text;
}

void missLeftOut(const Gathering& gathering) {
    constexpr std::size_t kMost = 10;  // that are told one by one
    const auto& all = gathering.descriptions.leftOut();
    for (std::size_t i = 0; i < std::min(all.size(), kMost); ++i) {
        const auto& [file, fault] = all[i];
        std::string what = "What is described in " + file;
        if (const std::string place = fault.place(); !place.empty()) what.append(", ").append(place);
        gathering.miss(what.append(": ").append(fault.what), fault.remedy);
    }
    if (all.size() > kMost)
        gathering.miss("What is described and left out, in " + std::to_string(all.size() - kMost) + " more places",
                       "see them with: " + typed("keys lint"));
}

}  // namespace

void gatherDescribed(Gathering& gathering) {
    constexpr std::size_t kMost = 1'000;  // lines of what may be unset
    const std::vector<sd::Descriptions::Found> all = gathering.descriptions.all();
    missLeftOut(gathering);
    if (all.size() > kMost)
        return gathering.miss("Keys that are described and unset: " + std::to_string(all.size()) + " are described",
                              "list them with: " + typed("list --described"));
    for (const auto& [description, file] : all)
        if (!description.isGlob()) gathering.described.emplace(description.key, description.store);
}

void describe(Gathering& gathering, const std::string& value, ReportedKey& one) {
    const auto found = gathering.descriptions.find(one.key);
    if (!found) return;
    const sd::KeyDescription& description = found->description;
    const sd::KeyWords words = localWords(description);
    one.described = ReportedDescription{words.summary, valuesIn(description, words), description.defaultValue,
                                        misfitOf(one, description, value)};
}

}  // namespace cli
