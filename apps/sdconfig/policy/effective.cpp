#include "apps/sdconfig/policy/effective.h"

#include "apps/sdconfig/terminal/messages.h"
#include "libsdconfig/sdconfig_text.h"

namespace cli {

namespace {

bool isStrong(int priority) {
    return priority > sd::kLocalPriority;
}

std::string ofPriority(int priority) {
    return "policy of priority " + std::to_string(priority);
}

}  // namespace

Effective weigh(const Layers& layers) {
    const auto policy = layers.counting();
    if (policy && isStrong(policy->priority)) return {policy->value, policy->priority, Origin::StrongPolicy};
    if (!layers.local.empty()) return {layers.local, sd::kLocalPriority, Origin::Local};
    if (policy && !layers.rowHidesPolicy) return {policy->value, policy->priority, Origin::WeakPolicy};
    return {"", sd::kLocalPriority, policy ? Origin::EmptyRow : Origin::Unset};
}

Effective answered(const sd::PolicyMap& policy) {
    if (policy.empty()) return {"", sd::kLocalPriority, Origin::UnsetOrHidden};
    const auto& [text, priority] = *policy.begin();
    const std::string value = text == sd::kNullValue ? "" : sd::textAsSet(text);
    if (isStrong(priority)) return {value, priority, Origin::StrongPolicy};
    if (priority < sd::kLocalPriority) return {value, priority, Origin::WeakPolicy};
    return {value, priority, value.empty() ? Origin::UnsetOrHidden : Origin::LocalOrPolicy};
}

bool agree(const Layers& layers, const Effective& answer) {
    const Effective stored = weigh(layers);
    return stored.value == answer.value && stored.priority == answer.priority;
}

std::string inWords(const std::string& key, const Effective& effective, const std::optional<apps::Policy>& policy) {
    switch (effective.origin) {
        case Origin::StrongPolicy:
            return "a " + ofPriority(effective.priority) + (effective.value.empty() ? " that sets no value" : "") +
                   ": above 5, it overrides whatever is set locally";
        case Origin::Local:
            if (!policy) return "the local secure value";
            return "the local secure value: it stands at priority 5 and outweighs the " + ofPriority(policy->priority);
        case Origin::WeakPolicy:
            return "a " + ofPriority(effective.priority) + (effective.value.empty() ? " that sets no value" : "") +
                   ": there is no local value to outweigh it";
        case Origin::EmptyRow:
            return "an empty local row hides the " + (policy ? ofPriority(policy->priority) : "policy") +
                   "; deleting it lets that through: " + typed("secure delete ") + asArgument(key);
        case Origin::Unset:
            return "neither a policy nor a local value";
        case Origin::LocalOrPolicy:
            return "the local secure value, or a policy of priority 5 where there is none";
        default:
            return "neither a policy nor a local value, or an empty local row that hides a policy";
    }
}

const char* nameOf(Origin origin) {
    switch (origin) {
        case Origin::StrongPolicy:
            return "strong_policy";
        case Origin::Local:
            return "local";
        case Origin::WeakPolicy:
            return "weak_policy";
        case Origin::EmptyRow:
            return "hidden_by_empty_row";
        case Origin::Unset:
            return "unset";
        case Origin::LocalOrPolicy:
            return "local_or_policy";
        default:
            return "unset_or_hidden";
    }
}

std::optional<apps::Policy> hiddenPolicy(const Layers& layers) {
    return weigh(layers).origin == Origin::EmptyRow ? layers.counting() : std::nullopt;
}

}  // namespace cli
