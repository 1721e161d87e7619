// Hosts the service in a process of one's own instead of sdconfigd, and uses it there; other processes of the user can,
// too.
//     own_service DATA-DIR        the folder of the databases and the key ring, which has to be there
// Ends with a line of input, or at its end.
#include <cstdio>
#include <string>

#include "libsdconfig/sdconfig.h"
#include "platform/sdbus/sdbus.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_service_sdbus.h"

namespace {

constexpr char kService[] = "sdconfig";

// Where things are, before the service opens them.
bool prepare(const std::string& dataDir) {
    sd::SDConfig::setDataPath(dataDir);
    sd::SDSecurity& security = *sd::SDSecurity::GetInstance();
    security.SetKeyRingFolder(dataDir);
    security.RegisterString("greeting", "Hello from a host of my own");
    const auto ring = security.CheckKeyRing();
    if (ring.state != sd::SDSecurity::KeyRingState::Broken) return true;
    std::fprintf(stderr, "own_service: %s\n", ring.detail.c_str());
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: own_service DATA-DIR\n");
        return 2;
    }
    if (!prepare(argv[1])) return 1;

    SDBusSerivceManager& bus = *SDBusSerivceManager::initSync(-1);
    sd::SDConfigService::GetInstance()->Start();
    if (const std::string problem = bus.registrationFailure(kService); !problem.empty()) {
        std::fprintf(stderr, "own_service: %s\n", problem.c_str());
        return 1;
    }
    std::printf("ready on %s\n", bus.socketPath(kService).c_str());
    std::printf("%s\n", sd::SDConfig::GetInstance()->GetConst("greeting").c_str());
    std::fflush(stdout);
    std::getchar();
    bus.unregisterServiceInterface(kService);
    return 0;
}
