#include "apps/sdconfig/hand_over.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "apps/sdconfig/terminal/messages.h"

namespace cli {

namespace {

namespace fs = std::filesystem;

constexpr char kInstalled[] = SDCONFIG_DATA_PROGRAM;  // from the folder of this program
constexpr char kName[] = "sdconfig-data";             // beside it, where it was built

// The folder alone counts: of a file that was replaced since, as an upgrade does, the system adds that to its name.
// Where there is no /proc, or this program lies outside of the root folder, it is where the installation puts it.
fs::path ownFolder() {
    std::error_code failure;
    const fs::path own = fs::read_symlink("/proc/self/exe", failure);
    return own.is_absolute() ? own.parent_path() : SDCONFIG_PROGRAM_DIR;
}

}  // namespace

int handOver(const Request& request, char** argv) {
    const fs::path folder = ownFolder();
    ::setenv(kHandedOverBy, SDCONFIG_VERSION, 1);
    const fs::path installed = (folder / kInstalled).lexically_normal();
    ::execve(installed.c_str(), argv, environ);
    const int problem = errno;
    if (problem == ENOENT) ::execve((folder / kName).c_str(), argv, environ);
    return fail(kRefused, attempt(request), installed.string() + " can't be run: " + std::strerror(problem),
                "it does this command's work: install sdconfig " SDCONFIG_VERSION " again, whole");
}

}  // namespace cli
