#include "apps/sdconfig/doctor/doctor_checks.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "apps/sdconfig/service/service.h"

namespace cli {

namespace {

void append(Checks& all, Checks more) {
    std::move(more.begin(), more.end(), std::back_inserter(all));
}

// A start that can't help before something else is mended is no advice.
void holdBackStarts(Checks& checks) {
    const auto first = std::find_if(checks.begin(), checks.end(),
                                    [](const Check& check) { return !check.ok() && check.turn == Turn::First; });
    if (first == checks.end()) return;
    for (Check& check : checks)
        if (!check.ok() && check.turn == Turn::Last) check.next = "first mend the " + first->name;
}

}  // namespace

Checks checkAll(const Request& request, const Service& service) {
    const Probe probe = service.probe();
    Checks checks = checkBus(service, probe);
    checks.push_back(checkVersions(service));
    checks.push_back(checkEnvironment(service));
    checks.push_back(checkUnits(service.processId() != 0));
    if (probe.answered) append(checks, checkPolicies(service));
    if (probe.answered) append(checks, checkTrail(service));
    Checks layer = checkLayer();
    const auto served = probe.answered ? knownRing(service) : std::nullopt;
    append(checks, layer.empty() ? checkDataFolder(findData(request, service), served) : std::move(layer));
    holdBackStarts(checks);
    return checks;
}

}  // namespace cli
