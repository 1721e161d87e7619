// The configuration service of a measurement, with as much data as that wants.
#pragma once

#include <string>
#include <vector>

#include "bench/process.h"

namespace bench {

// What sdconfigd, and the programs that are measured beside it, say on standard error once they can be used.
inline constexpr char kReady[] = "ready";

// The keys that are there, from 0, and what each of them has.
std::string keyOf(int index);
const std::string& storedValue();  // 64 bytes

// A data folder with so many secure values.
void makeData(const std::string& folder, const std::string& sdconfigd, int secureValues);

std::vector<std::string> serviceCommand(const std::string& sdconfigd, const std::string& dataFolder);

// A service with data and a runtime folder of its own, so that several run beside each other.
class Service {
public:
    // options: more of sdconfigd's.
    Service(const Workplace& place, const std::string& name, const std::string& sdconfigd, int secureValues,
            const std::vector<std::string>& options = {});

    // Makes the calling process, which has called no service yet, a client of this one: connected, its start-up tasks
    // done.
    void join() const;

    std::string dataFolder() const { return mFolder + "/data"; }

private:
    std::string mFolder;
    Process mProcess;
};

}  // namespace bench
