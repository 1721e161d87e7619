#include "apps/sdconfig/reading/policy_stage.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "policies/policy_folders.h"

namespace cli {

namespace fs = std::filesystem;

void fillStage(const std::string& stage, const std::string& folder,
               const std::map<std::string, std::optional<std::string>>& files) {
    std::error_code failure;
    for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end; entry.increment(failure)) {
        const fs::path file = entry->path().filename();
        std::error_code ignored;
        if (!sd::isPolicyFileName(file) || files.count(file)) continue;
        if (entry->is_regular_file(ignored))
            fs::copy_file(entry->path(), stage / file, ignored);
        else if (fs::read_symlink(entry->path(), ignored) == "/dev/null")
            fs::create_symlink("/dev/null", stage / file, ignored);
    }
    for (const auto& [name, text] : files)
        if (text) std::ofstream(fs::path(stage) / name) << *text;
    for (fs::directory_iterator entry(stage, failure), end; !failure && entry != end; entry.increment(failure))
        if (!entry->is_symlink()) (void)::chmod(entry->path().c_str(), 0644);
    (void)::chmod(stage.c_str(), 0755);
}

}  // namespace cli
