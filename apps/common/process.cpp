#include "apps/common/process.h"

#include <filesystem>
#include <fstream>

#include "apps/common/escaped.h"

namespace apps {

namespace {

namespace fs = std::filesystem;

fs::path procFile(pid_t process, const char* name) {
    return fs::path("/proc") / std::to_string(process) / name;
}

bool beginsWith(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

// Texts that end in a zero byte each.
std::vector<std::string> entriesOf(const fs::path& path) {
    std::ifstream file(path);
    std::vector<std::string> entries;
    for (std::string entry; std::getline(file, entry, '\0');) entries.push_back(entry);
    return entries;
}

// The control group of the service's unit; "" where the process is in none.
std::string serviceGroup(pid_t process) {
    std::ifstream file(procFile(process, "cgroup"));
    for (std::string group; std::getline(file, group);)
        if (group.find("/sdconfigd.service") != std::string::npos) return group;
    return "";
}

}  // namespace

std::vector<std::string> argumentsOf(pid_t process) {
    return entriesOf(procFile(process, "cmdline"));
}

std::optional<std::string> variableOf(pid_t process, const std::string& name) {
    for (const std::string& entry : entriesOf(procFile(process, "environ")))
        if (beginsWith(entry, name + "=")) return entry.substr(name.size() + 1);
    return std::nullopt;
}

std::string pathOption(pid_t process, const std::string& option) {
    const std::vector<std::string> arguments = argumentsOf(process);
    std::string path;  // the last one counts
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == option && i + 1 < arguments.size())
            path = arguments[++i];
        else if (beginsWith(arguments[i], option + "="))
            path = arguments[i].substr(option.size() + 1);
    }
    std::error_code failure;
    return path.empty() ? "" : (fs::read_symlink(procFile(process, "cwd"), failure) / path).lexically_normal().string();
}

bool isServiceUnit(pid_t process) {
    return !serviceGroup(process).empty();
}

std::string howToEnd(pid_t process) {
    const std::string group = serviceGroup(process);
    if (group.empty()) return "kill " + std::to_string(process);
    const bool isUsers = group.find("/user@") != std::string::npos;
    return std::string("systemctl ") + (isUsers ? "--user " : "") + "stop sdconfigd.socket sdconfigd.service";
}

std::string howToStartAgain(pid_t process, const std::string& by) {
    std::string command;
    for (const std::string& argument : argumentsOf(process))
        command += (command.empty() ? by : " ") + shellWord(argument);
    std::error_code failure;
    const fs::path folder = fs::read_symlink(procFile(process, "cwd"), failure);
    return fs::equivalent(folder, ".", failure) ? command : "cd " + shellWord(folder) + " && " + command;
}

}  // namespace apps
