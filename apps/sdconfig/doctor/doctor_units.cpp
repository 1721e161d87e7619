#include <map>
#include <sstream>

#include "apps/common/command_output.h"
#include "apps/common/system_service.h"
#include "apps/sdconfig/doctor/doctor_checks.h"
#include "apps/sdconfig/terminal/messages.h"

namespace cli {

namespace {

constexpr char kUnits[] = "units";
constexpr char kSocketUnit[] = "sdconfigd.socket";
constexpr char kServiceUnit[] = "sdconfigd.service";

using Properties = std::map<std::string, std::string>;

// Lines NAME=VALUE; none where no manager answers.
Properties propertiesOf(const std::string& unit) {
    std::istringstream lines(
        apps::outputOf(std::string("timeout 5 systemctl ") + (apps::isSystemService() ? "" : "--user ") +
                       "show --property=LoadState,ActiveState,UnitFileState,Result " + unit + " 2>/dev/null"));
    Properties properties;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t equals = line.find('=');
        if (equals != std::string::npos) properties[line.substr(0, equals)] = line.substr(equals + 1);
    }
    return properties;
}

Check failedUnit(const std::string& name, const std::string& result) {
    const std::string command = systemctl();
    return {kUnits, name + " failed (" + result + ")",
            "mend what it tells: " + command + " status " + kServiceUnit + "; then: " + command + " reset-failed " +
                kServiceUnit + "; " + command + " start " + kSocketUnit,
            Turn::Last};
}

}  // namespace

Check checkUnits(bool served) {
    Properties socket = propertiesOf(kSocketUnit);
    if (socket.empty()) return {kUnits, "no systemd manager answers here; the service is started by hand", ""};
    if (socket["LoadState"] == "not-found")
        return {kUnits, "there is no " + std::string(kSocketUnit) + "; the service is started by hand", ""};
    for (const char* name : {kSocketUnit, kServiceUnit}) {
        Properties unit = propertiesOf(name);
        if (unit["LoadState"] == "masked")
            return {kUnits, std::string(name) + " is masked", systemctl() + " unmask " + name};
        if (unit["ActiveState"] == "failed") return failedUnit(name, unit["Result"]);
    }
    const bool active = socket["ActiveState"] == "active";
    const bool lasts = socket["UnitFileState"] != "disabled";
    const std::string seen = std::string(kSocketUnit) + " is " + socket["ActiveState"] + ", " + socket["UnitFileState"];
    // A service that was started by hand does without the socket's unit.
    if (active ? lasts : served) return {kUnits, seen, ""};
    return {kUnits, seen, systemctl() + " enable --now " + kSocketUnit, Turn::Last};
}

}  // namespace cli
