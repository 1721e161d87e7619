// The service and the trail: what of a call goes into it, and what stores a change with its entry.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "base/sdconfig_types.h"
#include "base/text.h"
#include "policies/machine_policies.h"
#include "src/sdconfig_impl.h"
#include "src/sdconfig_impl_policy.h"
#include "src/sdconfig_interface.h"
#include "src/sdconfig_interface_call.h"
#include "src/sdconfig_policy_keeper.h"
#include "src/sdconfig_store_folder.h"
#include "src/sdconfig_trail_digest.h"
#include "src/sdconfig_trail_keeper.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "src/sdconfig_service_sdbus";

// So many policies that are deleted in one go have an entry each; more of them have one together.
constexpr std::size_t kDeletedMost = 5000;

std::string valueOf(PolicyMap effective) {
    if (effective.size() != 1 || effective.begin()->first == kNullValue) return "";
    return std::move(effective.extract(effective.begin()).key());
}

}  // namespace

// ---- Its begin and its end ----

void SDConfigInterface::openTrail() {
    if (!trailSettings().isKept || mTrail) return;
    if (!isLayerDigesting()) {
        LOG(6, AT "no trail is kept: the security layer makes no digests", HERE);
        return;
    }
    mTrail =
        std::make_unique<TrailKeeper>(storeFolder(), *SDConfigImpl::GetInstance(), SDConfigDmHelper::GetInstance());
    auto observe = &SDBusServiceInterface::observeRefusals;
    if (!observe) return;  // a bus library of a host's own
    (this->*observe)([this](const SDBusRefusal& refusal) {
        trail::Entry entry;
        entry.what = "REFUSED";
        entry.came = came::kRefused;
        entry.by = lookUp(refusal.peer);
        entry.why = refusal.reason;
        if (refusal.untold > 0) entry.count = refusal.untold;
        beginTrail();
        mTrail->noteCaller(std::move(entry));
    });
}

void SDConfigInterface::beginTrail() {
    if (mTrail) mTrail->begin();
}

// ---- Entries ----

trail::Entry SDConfigInterface::entryOf(const Call& call) {
    trail::Entry entry;
    entry.what = call.method;
    entry.by = mCallers.of(*call.request);
    entry.cause = call.cause;
    return entry;
}

TrailChange SDConfigInterface::changeOf(const Call& call, const std::string& key, const std::string& old) {
    TrailChange change;
    change.entry = entryOf(call);
    change.entry.key = key;
    change.before = change.after = old;
    return change;
}

// Whether the trail has to have that the key's value was told, before it is.
bool SDConfigInterface::noteRead(const Call& call, const std::string& key, const std::string& value) {
    if (!mTrail || !trailSettings().isAudited(key)) return false;
    trail::Entry entry = entryOf(call);
    entry.key = key;
    entry.came = came::kRead;
    entry.newDigest = mTrail->digestOf(key, value);
    mTrail->noteReading(std::move(entry));
    return true;
}

// ---- Values and policies ----

void SDConfigInterface::noteProperty(const Call& call, const std::string& key, const std::string& old,
                                     const std::string& value, bool isDone) {
    if (!mTrail) return;
    TrailChange change = changeOf(call, key, old);
    change.after = value;
    change.isOther = value != old;
    mTrail->note(change, isDone);
}

// Sets the value, or deletes it where there is none.
bool SDConfigInterface::storeSecure(const Call& call, const std::string& key, const std::optional<std::string>& value,
                                    const std::string& old, PolicyLayers layers) {
    const auto work = [&] { return value ? call.config.SetSecure(key, *value) : call.config.DeleteSecure(key); };
    if (!mTrail) return work();
    TrailChange change = changeOf(call, key, old);
    const auto stored = value ? std::optional(latin1ToUtf8(*value)) : std::nullopt;
    change.isOther = layers.local != stored;
    layers.local = stored;
    change.after = valueOf(SDConfigDmHelper::effectiveOf(std::move(layers), [&] { return stored.has_value(); }));
    return mTrail->record(change, work);
}

// Sets the policy, or deletes it where it is empty. Where the call is about a list, its first entry is the others'
// cause.
bool SDConfigInterface::storePolicy(Call& call, const std::string& key, const PolicyMap& policy, const std::string& old,
                                    PolicyLayers layers) {
    const auto work = [&] {
        return policy.empty() ? call.policies.DeletePolicyWithUri(key) : call.policies.SetPolicyWithUri(key, policy);
    };
    if (!mTrail) return work();
    TrailChange change = changeOf(call, key, old);
    if (!policy.empty()) change.entry.priority = policy.begin()->second;
    change.isGoverned = layers.isGoverned;
    if (!layers.isGoverned) {
        PolicyMap stored = SDConfigDmHelper::asStored(policy);
        change.isOther = policy.empty() || layers.policy != stored;
        layers.policy = std::move(stored);
        change.after =
            valueOf(SDConfigDmHelper::effectiveOf(std::move(layers), [&] { return call.config.isKeyInDB(key); }));
    }
    std::uint64_t seq = 0;
    const bool ok = mTrail->record(change, work, &seq);
    if (call.cause == 0) call.cause = seq;
    return ok;
}

// Without a line about a policy that can't be read: nobody asks for its value.
bool SDConfigInterface::erasePolicy(Call& call, const std::string& key) {
    if (!mTrail) return call.policies.DeletePolicyWithUri(key);
    PolicyLayers layers = call.policies.layersOf(key);
    const std::string old = valueOf(SDConfigDmHelper::effectiveOf(layers, [&] { return call.config.isKeyInDB(key); }));
    return storePolicy(call, key, {}, old, std::move(layers));
}

// What deleting all policies changes of one.
TrailChange SDConfigInterface::erasureOf(const Call& call, const std::string& uri) {
    PolicyLayers layers = call.policies.layersOf(uri);
    const auto hasRow = [&] { return call.config.isKeyInDB(uri); };
    TrailChange change = changeOf(call, uri, valueOf(SDConfigDmHelper::effectiveOf(layers, hasRow)));
    if (layers.isGoverned) return change;
    layers.policy.clear();
    change.after = valueOf(SDConfigDmHelper::effectiveOf(std::move(layers), hasRow));
    return change;
}

bool SDConfigInterface::eraseAllPolicies(const Call& call) {
    if (!mTrail) return call.policies.ClearAllKeys();
    TrailChange whole;
    whole.entry = entryOf(call);
    whole.entry.count = 0;
    std::vector<TrailChange> changes;
    const auto work = [&] {
        return call.policies.ClearAllKeys([&](const std::string& uri) {
            if (++*whole.entry.count <= kDeletedMost) changes.push_back(erasureOf(call, uri));
        });
    };
    const auto entries = [&] {
        // Where one could not be deleted, those before it have gone all the same.
        if (call.policies.isStored(*changes.back().entry.key)) changes.pop_back();
        std::vector<trail::Entry> told;
        told.reserve(changes.size());
        if (*whole.entry.count > kDeletedMost) {
            trail::Entry all = mTrail->entryOf(whole);
            all.came = came::kChanged;
            return std::vector{std::move(all)};
        }
        for (const TrailChange& change : changes) told.push_back(mTrail->entryOf(change));
        if (told.empty()) {
            whole.entry.came = came::kFailed;
            told.push_back(whole.entry);
        }
        return told;
    };
    return mTrail->record(entries, whole, work);
}

// Of a list that is refused as a whole.
void SDConfigInterface::noteFailure(const Call& call, std::size_t count) {
    if (!mTrail) return;
    TrailChange list;
    list.entry = entryOf(call);
    list.entry.count = count;
    mTrail->note(list, false);
}

// A policy of the machine that came, went or became another one.
void SDConfigInterface::noteMachinePolicy(const Call& call, const std::string& uri, const std::string& old,
                                          const std::string& latest) {
    if (!mTrail) return;
    const PolicyKeeper::Transition& transition = mPolicyKeeper->transition();
    const auto find = [&](const MachinePolicies* policies) { return policies ? policies->find(uri) : nullptr; };
    const auto* const now = find(transition.after.get());
    const auto* const source = now ? now : find(transition.before.get());
    TrailChange change = changeOf(call, uri, old);
    change.after = latest;
    change.entry.by.reset();
    if (now)
        change.entry.priority = now->entry->priority;
    else
        change.entry.why = "it is there no more";
    if (source)
        change.entry.source =
            (now ? transition.after : transition.before)->pathOf(*source) + ":" + std::to_string(source->entry->line);
    mTrail->note(change, true);
}

// ---- The key ring ----

// why: which key or slot, and what is to be known of it.
void SDConfigInterface::noteRing(trail::Entry entry, bool isDone, std::string why) {
    if (!mTrail) return;
    entry.came = isDone ? came::kDone : came::kFailed;
    entry.why = std::move(why);
    mTrail->lookAtRingAgain();
    mTrail->note(std::move(entry));
}

// ---- What it tells of itself ----

bool SDConfigInterface::trailStatus(Call& call) {
    const auto reply = makeReply(call);
    reply->appendBool(mTrail != nullptr);
    if (mTrail) {
        const trail::WriterStatus status = mTrail->status();
        reply->appendString(trail::headText(status.head));
        reply->appendString(std::to_string(status.onDisk));
        reply->appendString(status.key);
        reply->appendString(std::to_string(status.waiting));
        reply->appendString(std::to_string(status.lost));
        reply->appendString(std::to_string(status.lostSince));
        reply->appendString(status.why);
    }
    sendMessage(reply);
    return true;
}

}  // namespace sd
