// What the data folder and the machine's policies hold of secure keys.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "apps/data/data_reader.h"
#include "apps/sdconfig/policy/effective.h"
#include "apps/sdconfig/reading/machine_table.h"
#include "apps/sdconfig/request/request.h"

namespace cli {

class Service;

// The layers of keys, from the rows of both databases.
class StoredLayers {
public:
    // Returns what hindered the reading, or "". key: that key alone.
    std::string read(const apps::DataReader& reader, const std::optional<std::string>& key = std::nullopt);

    // From now on the layers hold these, too.
    void governBy(MachineTable machine) { mMachine = std::move(machine); }

    const MachineTable& machine() const { return mMachine; }

    Layers of(const std::string& key) const;

    // All keys that have a row, by the key without letter case: as the secure value spells it, or else the policy.
    std::map<std::string, std::string> keys() const;

private:
    std::map<std::string, apps::Row> mSecure;  // by the key without letter case
    std::map<std::string, apps::Row> mPolicies;
    MachineTable mMachine;
};

// Those of the request's key; nothing of it where the data folder can't be read.
Layers storedLayers(const Request& request, const Service& service);

}  // namespace cli
