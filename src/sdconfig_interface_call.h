// What the dispatcher's functions hand each other. For its own files only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/velmarlog/log_line.h"
#include "src/sdconfig_helpers.h"
#include "src/sdconfig_interface.h"

// What the dispatcher logs, it logs as handleMethodCall, whichever of its functions speaks.
#define DISPATCH HERE_AS("handleMethodCall")

namespace sd {

class SDConfigDmHelper;
class SDConfigImpl;
class SDPropertyInf;

// What one call works with.
struct SDConfigInterface::Call {
    std::string method;
    std::shared_ptr<SDBusMessage> request;
    std::shared_ptr<SDBusMessage> sdconfigChanged;
    std::shared_ptr<SDBusMessage> policyChanged;
    Stopwatch watch;
    SDConfigImpl& config;
    SDPropertyInf& properties;
    SDConfigDmHelper& policies;
    std::uint64_t cause = 0;  // the first entry of a list in the trail

    void logIfSlow() const;
};

// A key's value as callers see it, "null_value" given as "", and its priority.
struct SDConfigInterface::Effective {
    std::string value;
    int priority;
};

struct SDConfigInterface::PolicyChange {
    std::string key;
    std::string value;
    std::string old;
    bool strongBefore;
    bool ok;
};

}  // namespace sd
