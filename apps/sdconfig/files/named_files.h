// Files that a person names to have them looked at: by themselves, or by their folder.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace cli {

struct NamedFile {
    std::string path;
    std::string name;
    std::string problem{};  // why it is not to be read
};

struct NamedFiles {
    std::vector<NamedFile> files;  // in the order of their names; of one name, in that of the paths
    std::vector<std::pair<std::string, std::string>> unreadable;  // folders, and why
};

// paths: of files, whatever they are called, and of folders, whose files are taken that isMeant tells by their names.
NamedFiles namedFiles(const std::vector<std::string>& paths, bool (*isMeant)(const std::string& name));

}  // namespace cli
