// The properties: those that the files define, and those that were set at run time as far as somebody knows of them.
#include <filesystem>
#include <set>
#include <utility>

#include "apps/sdconfig/report/gather_parts.h"
#include "apps/sdconfig/request/letter_case.h"
#include "apps/sdconfig/request/read_only_key.h"
#include "libsdconfig/sdconfig.h"

namespace cli {

namespace {

using Lines = std::map<std::string, PropertyLines>;

// Without "..", where no link makes that another file.
std::string plain(const std::string& path) {
    const std::string normal = std::filesystem::path(path).lexically_normal();
    std::error_code failure;
    return std::filesystem::equivalent(path, normal, failure) ? normal : path;
}

std::string placeOf(const PropertyLine& line) {
    return line.file->path + ", line " + std::to_string(line.definition->line);
}

// Those of the files, and those that are described, that clients listen to or the trail knows, beside the settings.
std::set<std::string> keysOf(const Gathering& gathering, const Lines& lines) {
    std::set<std::string> settings;
    for (const ReportedKey& one : gathering.report.keys) settings.insert(folded(one.key));
    std::set<std::string> keys;
    for (const auto& [key, ofKey] : lines) keys.insert(key);
    for (const auto& [key, change] : gathering.history.properties) keys.insert(key);
    for (const auto& [key, store] : gathering.described)
        if (store == sd::KeyStore::Property) keys.insert(key);
    if (gathering.listeners)
        for (const auto& [key, clients] : *gathering.listeners)
            if (!settings.count(folded(key))) keys.insert(key);
    return keys;
}

bool isDescribed(const Gathering& gathering, const std::string& key) {
    const auto found = gathering.described.find(key);
    return found != gathering.described.end() && found->second == sd::KeyStore::Property;
}

// False where the service doesn't answer.
bool ask(Gathering& gathering, const std::string& key, std::optional<std::string>& value) {
    if (!gathering.probe.answered) return true;
    auto answer = gathering.service.call("GetProperty the key", key,
                                         [&] { return sd::SDConfig::GetInstance()->GetProperty(key); });
    if (answer.exitCode) return false;
    value = std::move(answer.result);
    return true;
}

Source sourceOf(PropertyOrigin origin) {
    static constexpr Source kSourcesOfProperties[] = {Source::Unset, Source::File, Source::Running, Source::Deleted};
    return kSourcesOfProperties[static_cast<std::size_t>(origin)];
}

std::string whyLost(const ReportedKey& one, const PropertyLine& line, const PropertyLine* counting) {
    if (&line == counting)
        return one.source == Source::Running ? "set anew since the service started" : "deleted since";
    if (counting && counting->file->isProducts && !line.file->isProducts && isReadOnlyKey(one.key))
        return "the product's file comes first";
    return isReadOnlyKey(one.key) ? "an earlier line counts" : "a later line counts";
}

ReportedKey keyOf(Gathering& gathering, const std::string& key, const PropertyLines& lines,
                  const std::optional<std::string>& ofService) {
    const PropertyLine* const counting = lines.counting ? &lines.all[*lines.counting] : nullptr;
    const std::string inFiles = counting ? counting->definition->value : "";
    ReportedKey one;
    one.key = key;
    one.isProperty = true;
    const std::string value = ofService.value_or(inFiles);
    one.value = gathering.visibility.ofProperty(value);
    one.source = sourceOf(originOf(ofService, inFiles));
    one.isReadOnly = isReadOnlyKey(key) && one.value.kind != ReportedValue::Kind::None;
    if (one.source == Source::File) one.place = placeOf(*counting);
    for (const PropertyLine& line : lines.all)
        if (one.source != Source::File || &line != counting)
            one.lost.push_back(placeOf(line) + ": " + whyLost(one, line, counting));
    if (const auto change = gathering.history.properties.find(key); change != gathering.history.properties.end())
        one.change = change->second;
    if (gathering.listeners) {
        const auto found = gathering.listeners->find(key);
        one.listeners = found == gathering.listeners->end() ? 0 : found->second;
    }
    describe(gathering, value, one);
    return one;
}

}  // namespace

void gatherProperties(Gathering& gathering) {
    const bool ofService = gathering.request.productDir.empty() && gathering.probe.answered;
    gathering.productDir = ofService ? gathering.service.productFolder() : gathering.request.productDir;
    gathering.report.propertyFiles = readPropertyFiles(gathering.productDir);
    for (PropertyFile& file : gathering.report.propertyFiles) file.path = plain(file.path);
    const Lines lines = linesByKey(gathering.report.propertyFiles);
    for (const std::string& key : keysOf(gathering, lines)) {
        std::optional<std::string> value;
        if (!ask(gathering, key, value))
            return gathering.miss("Properties from " + quoted(key) + " on: the service did not answer", howToRestart());
        const auto found = lines.find(key);
        ReportedKey one = keyOf(gathering, key, found == lines.end() ? PropertyLines() : found->second, value);
        const bool isThere = one.source != Source::Unset || !one.lost.empty() || one.listeners.value_or(0) > 0 ||
                             isDescribed(gathering, key);
        if (isThere) gathering.report.keys.push_back(std::move(one));
    }
    if (gathering.probe.answered)
        gathering.miss(
            "Properties that were set at run time, where no file, no description, no listener and no trail names them",
            "ask for one by its key: " + typed("get KEY"));
}

}  // namespace cli
