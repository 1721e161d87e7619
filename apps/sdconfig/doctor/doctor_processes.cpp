#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "apps/common/process.h"
#include "apps/sdconfig/doctor/doctor_checks.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"

namespace cli {

namespace {

constexpr char kVersions[] = "versions";
constexpr char kEnvironment[] = "environment";

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string procFile(const std::string& process, const char* name) {
    return "/proc/" + process + "/" + name;
}

// The library as the process has it loaded; "" where that can't be told.
std::string loadedLibrary(const std::string& process) {
    std::ifstream maps(procFile(process, "maps"));
    for (std::string line; std::getline(maps, line);)
        if (line.find("/libsdconfig.so") != std::string::npos) return line.substr(line.find('/'));
    return "";
}

// The file's name ends in it.
std::string versionOf(std::string library) {
    if (endsWith(library, apps::kRemoved)) library.resize(library.size() - sizeof apps::kRemoved + 1);
    const std::string before = "/libsdconfig.so.";
    const std::size_t at = library.rfind(before);
    return at == std::string::npos ? "unknown" : library.substr(at + before.size());
}

bool wasReplaced(const std::string& process, const std::string& library) {
    std::error_code failure;
    const std::string program = std::filesystem::read_symlink(procFile(process, "exe"), failure);
    return endsWith(program, apps::kRemoved) || endsWith(library, apps::kRemoved);
}

}  // namespace

Check checkVersions(const Service& service) {
    const std::string own = loadedLibrary("self");
    const std::string seen = "sdconfig " SDCONFIG_VERSION ", its library " + versionOf(own);
    if (versionOf(own) != SDCONFIG_VERSION)
        return {kVersions, seen + " (" + own + ")", "install both from one package; see that LD_LIBRARY_PATH is unset"};
    if (service.processId() == 0) return {kVersions, seen, ""};

    const std::string process = std::to_string(service.processId());
    const std::string library = loadedLibrary(process);
    const std::string all = seen + ", the service's " + versionOf(library);
    if (wasReplaced(process, library))
        return {kVersions, all + "; the service runs files that were replaced since", howToRestart()};
    if (!library.empty() && versionOf(library) != versionOf(own))
        return {kVersions, all + " (" + library + ")", "install both from one package, and " + howToRestart()};
    return {kVersions, all, ""};
}

Check checkEnvironment(const Service& service) {
    static constexpr char kRuntime[] = "XDG_RUNTIME_DIR";  // has a check of its own
    static constexpr std::array kNames{"HOME", kRuntime, "XDG_DATA_HOME", "CREDENTIALS_DIRECTORY"};
    std::string seen;
    for (const char* name : kNames) {
        const char* const value = std::getenv(name);
        if (!value || !*value) continue;
        seen += (seen.empty() ? "" : ", ") + std::string(name) + "=" + value;
        if (name != kRuntime && *value != '/')
            return {kEnvironment, std::string(name) + " is no absolute path and counts for nothing",
                    std::string("unset ") + name};
    }
    if (seen.empty()) seen = "no variable names a folder";
    const char* const own = std::getenv("CREDENTIALS_DIRECTORY");
    const auto ofService = apps::variableOf(service.processId(), "CREDENTIALS_DIRECTORY");
    if (ofService && (!own || *ofService != own))
        return {kEnvironment, "the service has a key ring handed over in " + *ofService + ", this program has not",
                "repeat it with CREDENTIALS_DIRECTORY=" + *ofService};
    return {kEnvironment, seen, ""};
}

}  // namespace cli
