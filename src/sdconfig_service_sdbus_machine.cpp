// The service and the machine's policies: takes a new reading, tells of what it changed, and of where each stands.
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "base/sdconfig_types.h"
#include "base/whole_path.h"
#include "policies/machine_policies.h"
#include "policies/policy_folders.h"
#include "src/sdconfig_impl_policy.h"
#include "src/sdconfig_interface.h"
#include "src/sdconfig_interface_call.h"
#include "src/sdconfig_policy_keeper.h"
#include "src/sdconfig_protocol.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "src/sdconfig_service_sdbus";

using Clock = std::chrono::steady_clock;
using Progress = PolicyKeeper::Progress;

// Of one step, so that other calls wait no longer than that.
constexpr std::chrono::milliseconds kStep{3};

// Of one answer of a list; and of a question about some URIs, and its answer.
constexpr std::size_t kListedMost = 1000;
constexpr std::size_t kListedBytesMost = std::size_t{1} << 20;
constexpr int kAskedMost = 1000;
constexpr std::size_t kAnsweredBytesMost = std::size_t{64} << 20;

std::string inFull(const std::string& folder) {
    std::string path = wholePath(folder);
    if (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

// Nothing where the host wants no policies of the machine. Root made the standard folders; what a host names may be its
// own user's.
std::optional<PolicyPlace> placeOfPolicies() {
    const auto& told = SDConfigDmHelper::machinePolicyFolders();
    if (!told) return PolicyPlace{standardPolicyFolders(), 0};
    if (told->empty()) return std::nullopt;
    PolicyPlace place{{}, ::geteuid()};
    for (const std::string& folder : *told) place.folders.push_back(inFull(folder));
    return place;
}

void appendPolicy(SDBusMessage& reply, const MachinePolicies& machine, const MachinePolicies::Policy& policy) {
    reply.appendString(policy.entry->uri);
    reply.appendString(policy.entry->value);
    reply.appendInt8(static_cast<int8_t>(policy.entry->priority));
    reply.appendString(machine.pathOf(policy));
    reply.appendInt32(policy.entry->line);
    reply.appendString(policy.entry->description);
}

std::size_t bytesOf(const MachinePolicies& machine, const MachinePolicies::Policy& policy) {
    const PolicyEntry& entry = *policy.entry;
    return entry.uri.size() + entry.value.size() + entry.description.size() + machine.pathOf(policy).size();
}

void appendSource(SDBusMessage& reply, const PolicySource& source) {
    reply.appendString(source.path);
    reply.appendInt8(static_cast<int8_t>(source.state));
    reply.appendString(source.detail);
}

void appendStatus(SDBusMessage& reply, const PolicyReadingStatus& status) {
    reply.appendInt32(static_cast<int32_t>(status.folders.size()));
    for (const PolicySource& folder : status.folders) appendSource(reply, folder);
    reply.appendInt32(static_cast<int32_t>(status.files.size()));
    for (const PolicySource& file : status.files) {
        appendSource(reply, file);
        reply.appendInt32(static_cast<int32_t>(file.policies));
    }
    reply.appendInt32(static_cast<int32_t>(status.nobody.size()));
    for (const auto& [name, reason] : status.nobody) {
        reply.appendString(name);
        reply.appendString(reason);
    }
}

std::string millisecondsSince1970(std::chrono::system_clock::time_point time) {
    return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count());
}

}  // namespace

bool SDConfigInterface::readMachinePolicies() {
    if (mPolicyKeeper) return true;
    const auto place = placeOfPolicies();
    if (!place) return true;
    auto keeper = std::make_unique<PolicyKeeper>(*place);
    PolicyKeeper::Policies policies = keeper->readFirst();
    if (policies->status().isShort) return false;  // nobody may be governed by less than there is
    mPolicyKeeper = std::move(keeper);
    SDConfigDmHelper::useMachinePolicies(std::move(policies));
    return true;
}

bool SDConfigInterface::watchMachinePolicies() {
    if (!mPolicyKeeper) return true;
    const auto service =
        SDBusSerivceManager::initSync(-1)->getServiceProxyInterface(protocol::kServiceName, SDBusSameUser, 1);
    return mPolicyKeeper->start([service] {
        const auto answer = service->callWithReplyBlocking(service->makeMethodCallMessage(protocol::kPoliciesRead),
                                                           protocol::kCallTimeoutMs);
        if (answer->type() != protocol::kMethodReply) return Progress::Unanswered;
        return answer->getBool(0) ? Progress::GoesOn : Progress::Done;
    });
}

// The keeper's own call; another's has the folders read once more.
bool SDConfigInterface::takePolicies(Call& call) {
    bool goesOn = false;
    if (mPolicyKeeper) {
        if (auto policies = mPolicyKeeper->take())
            SDConfigDmHelper::useMachinePolicies(std::move(policies));
        else if (mPolicyKeeper->transition().isDone())
            mPolicyKeeper->lookAgain();
        goesOn = !tellOfPolicies(call);
    }
    replyBool(call, goesOn);
    return true;
}

// Tells of the policies that the new reading changed as if they had been set. Whether that was all.
bool SDConfigInterface::tellOfPolicies(const Call& call) {
    PolicyKeeper::Transition& transition = mPolicyKeeper->transition();
    const auto limit = Clock::now() + kStep;
    while (!transition.isDone() && Clock::now() < limit) {
        const std::string& uri = transition.uris[transition.told++];
        const auto before = effectiveOf(call.policies.effectiveUnder(transition.before.get(), uri));
        if (!before) continue;
        const auto latest =
            announcePolicy(call, {uri, "", before->value, before->priority > kLocalPriority, true}, nullptr);
        if (latest) noteMachinePolicy(call, uri, before->value, latest->value);
    }
    if (!transition.isDone()) return false;
    transition = {};
    return true;
}

bool SDConfigInterface::policiesStatus(Call& call) {
    const auto& machine = SDConfigDmHelper::machinePolicies();
    const auto reply = makeReply(call);
    reply->appendBool(machine != nullptr);
    if (machine) {
        const PolicyReadingStatus& status = machine->status();
        reply->appendString(millisecondsSince1970(status.when));
        reply->appendBool(mPolicyKeeper && mPolicyKeeper->isWatching() && !status.hasLinks);
        reply->appendInt32(static_cast<int32_t>(machine->all().size()));
        appendStatus(*reply, status);
    }
    sendMessage(reply);
    return true;
}

// Of the URIs that are asked about, those that the machine's policies govern.
bool SDConfigInterface::governingPolicies(Call& call) {
    const auto& machine = SDConfigDmHelper::machinePolicies();
    std::vector<const MachinePolicies::Policy*> found;
    const int count = machine ? call.request->getInt32(0) : 0;
    std::size_t bytes = 0;
    for (int i = 1; i <= std::min(count, kAskedMost) && bytes <= kAnsweredBytesMost; ++i) {
        const auto* const policy = machine->find(call.request->getString(i));
        if (!policy) continue;
        found.push_back(policy);
        bytes += bytesOf(*machine, *policy);
    }
    if (count > kAskedMost || bytes > kAnsweredBytesMost) {
        // No answer, as to every question whose answer can't be sent.
        LOG(7, AT "POLICIES_GOVERNING refused: its URIs are too many, or their policies too long together", DISPATCH);
        return false;
    }
    const auto reply = makeReply(call);
    reply->appendInt32(static_cast<int32_t>(found.size()));
    for (const auto* const policy : found) appendPolicy(*reply, *machine, *policy);
    sendMessage(reply);
    return true;
}

// Some of the machine's policies, from the one after the URI on.
bool SDConfigInterface::listMachinePolicies(Call& call) {
    const auto& machine = SDConfigDmHelper::machinePolicies();
    const auto reply = makeReply(call);
    if (!machine) {
        reply->appendBool(false);
        reply->appendInt32(0);
        sendMessage(reply);
        return true;
    }
    const auto begin = machine->after(call.request->getString(0));
    auto end = begin;
    for (std::size_t bytes = 0; end != machine->all().end(); ++end) {
        bytes += bytesOf(*machine, *end);
        if (end != begin && (bytes > kListedBytesMost || end - begin >= static_cast<std::ptrdiff_t>(kListedMost)))
            break;
    }
    reply->appendBool(end != machine->all().end());
    reply->appendInt32(static_cast<int32_t>(end - begin));
    std::for_each(begin, end, [&](const MachinePolicies::Policy& one) { appendPolicy(*reply, *machine, one); });
    sendMessage(reply);
    return true;
}

}  // namespace sd
