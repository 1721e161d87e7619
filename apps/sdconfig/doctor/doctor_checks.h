// What "doctor" and "report" look at, an area a file. Nothing is created or changed, and no value is told.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/service/slot_calls.h"

namespace cli {

class Service;
struct Probe;

// What has to be mended first, since no service can be reached or started before, and what starting one mends.
enum class Turn { Any, First, Last };

struct Check {
    std::string name;  // what was looked at
    std::string what;  // what was seen
    std::string next;  // what to do about it; "": it is as it should be
    Turn turn = Turn::Any;

    bool ok() const { return next.empty(); }
};

using Checks = std::vector<Check>;

// doctor_checks.cpp: all of them, in the order in which they are told.
Checks checkAll(const Request& request, const Service& service);

// doctor_bus.cpp: where the service is looked for, and whether it is there.
Checks checkBus(const Service& service, const Probe& probe);

// doctor_processes.cpp: what the service runs on, beside this program.
Check checkVersions(const Service& service);
Check checkEnvironment(const Service& service);

// doctor_units.cpp: what systemd makes of the service. served: whether there is one.
Check checkUnits(bool served);

// doctor_policies.cpp: the machine's policies, as the service that answers has read them; nothing where it has none.
Checks checkPolicies(const Service& service);

// doctor_trail.cpp: whether the service that answers can write its trail; nothing of one that knows none. What stands
// there is looked at with the folder.
Checks checkTrail(const Service& service);

// doctor_data.cpp: a security layer that binds no values. It may lack all that looking into the folder takes as well.
Checks checkLayer();

// doctor_data.cpp: the folder, its key ring, and the room that is left.
// served: the ring as the running service sees it.
Checks checkDataFolder(const DataAccess& access, const std::optional<SlottedRing>& served);

}  // namespace cli
