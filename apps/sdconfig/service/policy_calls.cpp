#include "apps/sdconfig/service/policy_calls.h"

#include <algorithm>
#include <iterator>

#include "apps/sdconfig/service/service.h"
#include "platform/sdbus/sdbus.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

constexpr std::size_t kAsked = 1000;  // at once

// The policies of an answer, which has their number at that place.
std::vector<apps::MachinePolicy> policiesAt(int at, SDBusMessage& answer) {
    std::vector<apps::MachinePolicy> policies;
    for (int left = answer.getInt32(at++); left > 0; --left) {
        apps::MachinePolicy one;
        one.uri = answer.getString(at++);
        one.policy.value = answer.getString(at++);
        one.policy.priority = answer.getInt(at++);
        one.file = answer.getString(at++);
        one.line = answer.getInt32(at++);
        one.description = answer.getString(at++);
        policies.push_back(std::move(one));
    }
    return policies;
}

}  // namespace

std::optional<std::vector<apps::MachinePolicy>> governing(const Service& service,
                                                          const std::vector<std::string>& uris) {
    std::vector<apps::MachinePolicy> all;
    for (std::size_t at = 0; at < uris.size(); at += kAsked) {
        const std::size_t count = std::min(kAsked, uris.size() - at);
        const auto ask = [&](SDBusMessage& call) {
            call.appendInt32(static_cast<int32_t>(count));
            for (std::size_t i = at; i < at + count; ++i) call.appendString(uris[i]);
        };
        const auto answer = service.tryToAskKnown(sd::protocol::kPoliciesGoverning, ask, "i");
        if (!answer) return std::nullopt;
        std::vector<apps::MachinePolicy> found = policiesAt(0, *answer);
        std::move(found.begin(), found.end(), std::back_inserter(all));
    }
    return all;
}

std::optional<apps::MachinePolicy> governing(const Service& service, const std::string& uri) {
    const auto found = governing(service, std::vector<std::string>{uri});
    return found && !found->empty() ? std::optional(found->front()) : std::nullopt;
}

std::optional<std::vector<apps::MachinePolicy>> listGoverning(const Service& service) {
    std::vector<apps::MachinePolicy> all;
    for (bool more = true; more;) {
        const auto ask = [&](SDBusMessage& call) { call.appendString(all.empty() ? "" : all.back().uri); };
        const auto answer = service.tryToAskKnown(sd::protocol::kPoliciesList, ask, "bi");
        if (!answer) return std::nullopt;
        std::vector<apps::MachinePolicy> next = policiesAt(1, *answer);
        more = answer->getBool(0) && !next.empty();
        std::move(next.begin(), next.end(), std::back_inserter(all));
    }
    return all;
}

}  // namespace cli
