#include "apps/sdconfig/hand_over.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "apps/sdconfig/terminal/messages.h"

namespace cli {

namespace {

namespace fs = std::filesystem;

constexpr char kInstalled[] = SDCONFIG_DATA_PROGRAM;  // from the folder of this program
constexpr char kName[] = "sdconfig-data";             // beside it, where it was built

// The folder alone counts: of a file that was replaced since, as an upgrade does, the system adds that to its name.
fs::path ownFolder() {
    std::error_code failure;
    return fs::read_symlink("/proc/self/exe", failure).parent_path();
}

}  // namespace

int handOver(const Request& request, char** argv) {
    const fs::path folder = ownFolder();
    if (folder.empty())
        return fail(kRefused, attempt(request), "/proc does not tell where this program lies",
                    "mount /proc, and repeat it");
    const fs::path installed = (folder / kInstalled).lexically_normal();
    ::execve(installed.c_str(), argv, environ);
    const int problem = errno;
    if (problem == ENOENT) ::execve((folder / kName).c_str(), argv, environ);
    return fail(kRefused, attempt(request), installed.string() + " can't be run: " + std::strerror(problem),
                "it does this command's work: install sdconfig " SDCONFIG_VERSION " again, whole");
}

}  // namespace cli
