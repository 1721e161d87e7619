// Which build.prop file gives a property its value.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "src/sdconfig_impl_property.h"

namespace cli {

struct FileValue {
    std::string value;  // "": none, or an empty one
    std::string file;   // "": no file that can be read here defines the property, or not a single one gives the value
};

// By the reader and the order of the service. productDir: the product's data folder, "" for none.
FileValue propertyFromFiles(const std::string& key, const std::string& productDir);

// The keys that the files define.
std::set<std::string> keysInFiles(const std::string& productDir);

struct PropertyFile {
    std::string path;
    bool isProducts = false;
    bool isRead = false;  // else it isn't there, or can't be read
    std::vector<sd::SDPropertyInf::Definition> definitions{};
};

// All that the files say, in the order in which the service reads them.
std::vector<PropertyFile> readPropertyFiles(const std::string& productDir);

// A line of a file that names a property.
struct PropertyLine {
    const PropertyFile* file;
    const sd::SDPropertyInf::Definition* definition;
};

// The lines that name a property, in the order in which they are read, and the one of them that gives its value.
struct PropertyLines {
    std::vector<PropertyLine> all{};
    std::optional<std::size_t> counting{};  // nothing where none does
};

// By the property's key. files: have to outlive it.
std::map<std::string, PropertyLines> linesByKey(const std::vector<PropertyFile>& files);

// Where a property's value comes from.
enum class PropertyOrigin { Unset, File, Service, Deleted };

// ofService: nothing where no service told. inFiles: by propertyFromFiles.
PropertyOrigin originOf(const std::optional<std::string>& ofService, const std::string& inFiles);

}  // namespace cli
