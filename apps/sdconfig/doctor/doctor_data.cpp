#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "apps/data/data_check.h"
#include "apps/data/database_check.h"
#include "apps/data/served_folder.h"
#include "apps/sdconfig/doctor/doctor_checks.h"
#include "apps/sdconfig/terminal/messages.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_sealed_row.h"

namespace cli {

namespace {

namespace fs = std::filesystem;

constexpr char kFolder[] = "data folder";
constexpr char kRing[] = "key ring";
constexpr char kLayer[] = "security layer";
constexpr char kRoom[] = "disk space";

// A set of the largest value takes a row and as much of the log.
constexpr unsigned long kLeastRoomMiB = 64;

bool isThere(const std::string& path) {
    std::error_code ignored;
    return fs::exists(path, ignored);
}

// One that is missing or broken is among the folder's findings.
Checks checkRing(const SlottedRing& ring) {
    using State = sd::SDSecurity::KeyRingState;
    const std::string& where = ring.status.detail;
    if (ring.isLocked()) return {{kRing, "locked, " + waitsFor(ring), "open it with: " + howToOpen(ring)}};
    if (ring.status.state != State::Usable) return {};
    return {{kRing, ring.isWrapped() ? where + ", its slots are " + namesOf(ring) : where, ""}};
}

Checks checkFolder(const std::string& folder, const std::optional<SlottedRing>& served) {
    const apps::DataCheck data = apps::checkData(folder);
    Checks checks;
    for (const apps::Finding& finding : data.findings)
        if (finding.next != apps::kOpenRing)  // below, as the service sees it
            checks.push_back({kFolder, finding.what, finding.next, finding.refusesStart ? Turn::First : Turn::Any});
    if (checks.empty())
        checks.push_back(
            {kFolder,
             folder + ": secure values " + std::to_string(data.secure) + ", policies " + std::to_string(data.policies),
             ""});
    sd::SDSecurity& layer = *sd::SDSecurity::GetInstance();
    const Checks ring = checkRing(served ? *served : SlottedRing{layer.CheckKeyRing(), layer.KnownSlots()});
    checks.insert(checks.end(), ring.begin(), ring.end());
    return checks;
}

Check checkRoom(const std::string& folder) {
    fs::path place = folder;
    while (!isThere(place) && place.has_relative_path()) place = place.parent_path();
    struct statvfs status {};
    if (::statvfs(place.c_str(), &status) != 0)
        return {kRoom, place.string() + ": " + std::strerror(errno), "see that the folder can be read"};
    if (status.f_flag & ST_RDONLY)
        return {kRoom, place.string() + " is on a file system that is read-only", "mount it for writing"};
    const unsigned long room = status.f_bavail * status.f_frsize >> 20;
    const std::string seen = std::to_string(room) + " MiB free in " + place.string();
    const bool hasNodes = status.f_files == 0 || status.f_favail > 0;
    if (!hasNodes) return {kRoom, "no more files can be made in " + place.string(), "remove some on that file system"};
    return {kRoom, seen, room < kLeastRoomMiB ? "make room on that file system" : ""};
}

}  // namespace

Checks checkLayer() {
    if (sd::isLayerBinding()) return {};
    return {{kLayer,
             "the security layer is one that binds no value to its row: whoever writes the databases can give a key "
             "another's value",
             "install the libsdsecurity of this version"}};
}

Checks checkDataFolder(const DataAccess& access, const std::optional<SlottedRing>& served) {
    if (const auto displaced = apps::displacedData())
        return {{kFolder, displaced->what, displaced->next + howToRestart()}};
    if (!access.ofService.empty())
        return {{kFolder, "the running service keeps its data in " + access.ofService, "leave out --data-dir"}};
    if (!access.reader) return {{kFolder, kFolderUntold, "name it with --data-dir"}};
    const std::string& folder = access.reader->folder();
    Checks checks = apps::isDataFolder(folder)
                        ? checkFolder(folder, served)
                        : Checks{{kFolder, folder + " holds no data yet; the service makes it", ""}};
    checks.push_back(checkRoom(folder));
    return checks;
}

}  // namespace cli
