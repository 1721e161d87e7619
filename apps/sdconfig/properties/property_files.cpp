#include "apps/sdconfig/properties/property_files.h"

#include <vector>

#include "apps/sdconfig/request/read_only_key.h"
#include "libsdconfig/sdconfig.h"
#include "src/sdconfig_impl_property.h"
#include "src/sdconfig_key_classes.h"

namespace cli {

namespace {

std::string firstDefinition(sd::SDPropertyInf& reader, const std::string& file, const std::string& key) {
    std::string value;
    reader.fileOperate(file, false, value, key);
    return value;
}

// Takes the key out, reads the file again and sees whether it came back.
bool defines(sd::SDPropertyInf& reader, const std::string& file, const std::string& key) {
    reader.DeleteProperty(key);
    reader.readPropertyFile(file);
    return reader.DeleteProperty(key);
}

}  // namespace

FileValue propertyFromFiles(const std::string& key, const std::string& productDir) {
    std::vector<std::string> files;  // in the order in which they are read
    if (!productDir.empty()) files.push_back(productDir + "/../etc/build.prop");
    if (!sd::isSpecialKeyInBuildProp(key)) files.insert(files.end(), {"/etc/build.prop", "/velmar/etc/build.prop"});

    sd::SDConfig::setVelmarDataPath(productDir);
    sd::SDPropertyInf reader;
    FileValue result{reader.GetProperty(key), ""};
    for (const std::string& file : files) {
        if (!isReadOnlyKey(key)) {
            if (defines(reader, file, key)) result.file = file;
        } else if (result.file.empty() && !result.value.empty() && firstDefinition(reader, file, key) == result.value) {
            result.file = file;
        }
    }
    return result;
}

std::set<std::string> keysInFiles(const std::string& productDir) {
    sd::SDConfig::setVelmarDataPath(productDir);
    const sd::SDPropertyInf reader;
    // Those of isSpecialKeyInBuildProp, which the reader takes from the file each time and doesn't keep.
    std::set<std::string> keys{"ro.sd.build.version", "ro.sd.product.channel", "ro.velmar.switch.env"};
    for (const auto& [key, value] : reader.cached()) keys.insert(key);
    return keys;
}

}  // namespace cli
