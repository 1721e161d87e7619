#include "apps/common/system_service.h"

#include <cstdlib>
#include <filesystem>

namespace apps {

bool isSystemService() {
    const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
    std::error_code failure;
    return runtime && std::filesystem::equivalent(runtime, "/run", failure);
}

}  // namespace apps
