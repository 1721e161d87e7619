#include "apps/sdconfig/files/named_files.h"

#include <algorithm>
#include <filesystem>

namespace cli {

namespace fs = std::filesystem;

namespace {

// A pipe that is named may be one of the shell's; one in a folder has nobody who writes, and would be waited for.
std::string problemOf(const fs::directory_entry& entry) {
    std::error_code failure;
    return entry.is_fifo(failure) ? "it is no regular file" : "";
}

}  // namespace

NamedFiles namedFiles(const std::vector<std::string>& paths, bool (*isMeant)(const std::string& name)) {
    NamedFiles named;
    for (const std::string& path : paths) {
        std::error_code failure;
        if (!fs::is_directory(path, failure)) {
            named.files.push_back({path, fs::path(path).filename(), ""});
            continue;
        }
        for (fs::directory_iterator entry(path, failure), end; !failure && entry != end; entry.increment(failure)) {
            const std::string name = entry->path().filename();
            if (isMeant(name)) named.files.push_back({entry->path(), name, problemOf(*entry)});
        }
        if (failure) named.unreadable.emplace_back(path, failure.message());
    }
    std::stable_sort(named.files.begin(), named.files.end(),
                     [](const NamedFile& a, const NamedFile& b) { return a.name < b.name; });
    return named;
}

}  // namespace cli
