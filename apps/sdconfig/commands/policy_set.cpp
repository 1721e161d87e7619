// policy set: a policy of a key.
#include "apps/sdconfig/commands/commands.h"
#include "apps/sdconfig/described/new_value.h"
#include "apps/sdconfig/policy/change_output.h"
#include "apps/sdconfig/policy/effective.h"
#include "apps/sdconfig/policy/property_clash.h"
#include "apps/sdconfig/service/policy_calls.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "libsdconfig/dmconfig.h"
#include "policies/policy_value.h"

namespace cli {

namespace {

sd::DMConfig& policies() {
    return *sd::DMConfig::GetInstance();
}

// What comes back instead of a policy is local.
void noteWhereHidden(const Request& request, const std::string& value, int priority) {
    const Effective now = answered(policies().GetPolicyWithUri(request.key));
    if (now.value != value || now.priority != priority) noteHidden(request.key, !now.value.empty());
}

}  // namespace

int setPolicy(const Request& request, Service& service) {
    const auto priority = sd::parsePriority(request.priority);
    if (!priority)
        return unfitPolicy(request, {"PRIORITY has to be a whole number from 0 to 127",
                                     "above 5 it overrides whatever is set locally, from 0 to 5 it is a default"});
    if (const std::string unfit = sd::unfitPolicyValue(request.value); !unfit.empty())
        return unfitPolicy(request, {"VALUE " + unfit, "give another value, or \"\" for none"});
    const NewValue described(request, Target::Policy);
    if (described.goesElsewhere()) return kElsewhere;
    if (const int code = service.require()) return code;
    std::string value = request.value;
    if (const int code = described.fit(value)) return code;
    const bool onlyProperty = isOnlyProperty(request.key, answered(policies().GetPolicyWithUri(request.key)));
    const auto [done, code] = service.call("SetPolicyWithUri key", request.key, [&, p = *priority] {
        return policies().SetPolicyWithUri(request.key, {{value, p}});
    });
    if (code) return code;
    if (done && onlyProperty) noteProperty(request.key);
    if (done) noteWhereHidden(request, value, *priority);
    return printPolicyChange(request, uriObject(request), done, done ? std::nullopt : governing(service, request.key));
}

}  // namespace cli
