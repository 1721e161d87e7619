// Which build.prop file gives a property its value.
#pragma once

#include <set>
#include <string>

namespace cli {

struct FileValue {
    std::string value;  // "": none, or an empty one
    std::string file;   // "": no file that can be read here defines the property, or not a single one gives the value
};

// By the reader and the order of the service. productDir: the product's data folder, "" for none.
FileValue propertyFromFiles(const std::string& key, const std::string& productDir);

// The keys that the files define.
std::set<std::string> keysInFiles(const std::string& productDir);

}  // namespace cli
