#include "apps/sdconfig/properties/property_files.h"

#include <algorithm>
#include <vector>

#include "apps/sdconfig/request/read_only_key.h"
#include "libsdconfig/sdconfig.h"
#include "src/sdconfig_key_classes.h"

namespace cli {

namespace {

// By the rules of the service's reader.
std::optional<std::size_t> countingLine(const std::string& key, const std::vector<PropertyLine>& lines) {
    const auto isProducts = [](const PropertyLine& line) { return line.file->isProducts; };
    const auto hasValue = [](const PropertyLine& line) { return !line.definition->value.empty(); };
    const auto first = [&lines](auto holds) { return std::find_if(lines.begin(), lines.end(), holds); };
    const bool isSpecial = sd::isSpecialKeyInBuildProp(key);
    const auto found = isSpecial ? first(isProducts) : isReadOnlyKey(key) ? first(hasValue) : lines.end();
    if (found != lines.end()) return static_cast<std::size_t>(found - lines.begin());
    return isSpecial ? std::nullopt : std::optional(lines.size() - 1);
}

}  // namespace

FileValue propertyFromFiles(const std::string& key, const std::string& productDir) {
    const std::vector<PropertyFile> files = readPropertyFiles(productDir);
    const std::map<std::string, PropertyLines> lines = linesByKey(files);
    const auto found = lines.find(key);
    if (found == lines.end() || !found->second.counting) return {};
    const PropertyLine& line = found->second.all[*found->second.counting];
    const bool isNothing = isReadOnlyKey(key) && line.definition->value.empty();
    return {line.definition->value, isNothing ? "" : line.file->path};
}

std::set<std::string> keysInFiles(const std::string& productDir) {
    sd::SDConfig::setVelmarDataPath(productDir);
    const sd::SDPropertyInf reader;
    // Those of isSpecialKeyInBuildProp, which the reader takes from the file each time and doesn't keep.
    std::set<std::string> keys{"ro.sd.build.version", "ro.sd.product.channel", "ro.velmar.switch.env"};
    for (const auto& [key, value] : reader.cached()) keys.insert(key);
    return keys;
}

std::vector<PropertyFile> readPropertyFiles(const std::string& productDir) {
    std::vector<PropertyFile> files;
    if (!productDir.empty()) files.push_back({productDir + "/../etc/build.prop", true});
    files.insert(files.end(), {{"/etc/build.prop"}, {"/velmar/etc/build.prop"}});
    for (PropertyFile& file : files) file.isRead = sd::SDPropertyInf::readDefinitions(file.path, file.definitions);
    return files;
}

std::map<std::string, PropertyLines> linesByKey(const std::vector<PropertyFile>& files) {
    std::map<std::string, PropertyLines> lines;
    for (const PropertyFile& file : files)
        for (const auto& definition : file.definitions) lines[definition.key].all.push_back({&file, &definition});
    for (auto& [key, ofKey] : lines) ofKey.counting = countingLine(key, ofKey.all);
    return lines;
}

PropertyOrigin originOf(const std::optional<std::string>& ofService, const std::string& inFiles) {
    const std::string value = ofService.value_or(inFiles);
    if (value.empty()) return inFiles.empty() ? PropertyOrigin::Unset : PropertyOrigin::Deleted;
    return value == inFiles ? PropertyOrigin::File : PropertyOrigin::Service;
}

}  // namespace cli
