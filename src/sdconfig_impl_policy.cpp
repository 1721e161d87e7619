#include "src/sdconfig_impl_policy.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <utility>
#include <vector>

#include "base/text.h"
#include "platform/velmarlog/log_line.h"
#include "policies/machine_policies.h"
#include "sql/SQLiteTransaction.h"
#include "src/sdconfig_helpers.h"
#include "src/sdconfig_impl.h"
#include "src/sdconfig_key_value_table.h"
#include "src/sdconfig_policy_text.h"
#include "src/sdconfig_sealed_row.h"
#include "src/sdconfig_store_folder.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "src/sdconfig_impl";

constexpr int kNoPriority = -1;

constexpr int kSlowPolicyMs = 100;
constexpr int kSlowWeighingMs = 150;

bool isDecimal(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

PolicyMap policyOf(std::string value, int priority) {
    PolicyMap policy;
    policy.emplace(value.empty() ? kNullValue : std::move(value), priority);
    return policy;
}

// Of the process, not of a store: the machine's policies are the same for all, and the store's size is a contract with
// hosts that were built against earlier versions.
struct Machine {
    std::optional<std::vector<std::string>> folders;
    std::shared_ptr<const MachinePolicies> policies;
};

Machine& machine() {
    static Machine sMachine;
    return sMachine;
}

const MachinePolicies::Policy* governing(const MachinePolicies* policies, const std::string& uri) {
    return policies ? policies->find(uri) : nullptr;
}

// As a stored one reads back.
PolicyMap policyOf(const PolicyEntry& entry) {
    return policyOf(latin1ToUtf8(entry.value), entry.priority);
}

// The policy that a stored text holds; nothing where it is malformed.
std::optional<PolicyMap> parsePolicy(const std::string& text) {
    auto [value, priorityText] = splitPolicyText(text);
    if (!isDecimal(priorityText)) return std::nullopt;
    // An empty text, or one beyond an int, raises std::stoi's exception: it is let through on purpose.
    const int priority = std::stoi(priorityText);
    return priority == kNoPriority ? PolicyMap() : policyOf(std::move(value), priority);
}

// hasRow: whether a row of exactly this URI holds a local value, an empty one included; asked where that decides.
template <class HasRow>
PolicyMap weigh(PolicyMap policy, std::string local, const HasRow& hasRow) {
    const int priority = policy.empty() ? kNoPriority : policy.begin()->second;
    // A strong policy, or a weak one with no local value and no row that says there is none.
    const bool policyWins = priority > kLocalPriority || (!policy.empty() && local.empty() && !hasRow());
    return policyWins ? std::move(policy) : policyOf(std::move(local), kLocalPriority);
}

// Whether the machine's policies leave the URI's stored one alone; else a line has told by which file they don't.
bool isFreeToChange(const std::string& uri) {
    const MachinePolicies* const policies = machine().policies.get();
    const auto* const found = governing(policies, uri);
    if (!found) return true;
    LOG(7, AT "the policy of %s is the machine's and can't be changed here: it stands in %s, line %d", HERE,
        uri.c_str(), policies->pathOf(*found).c_str(), found->entry->line);
    return false;
}

}  // namespace

void SDConfigDmHelper::SetMachinePolicyFolders(std::vector<std::string> folders) {
    machine().folders = std::move(folders);
}

const std::optional<std::vector<std::string>>& SDConfigDmHelper::machinePolicyFolders() {
    return machine().folders;
}

void SDConfigDmHelper::useMachinePolicies(std::shared_ptr<const MachinePolicies> policies) {
    machine().policies = std::move(policies);
}

const std::shared_ptr<const MachinePolicies>& SDConfigDmHelper::machinePolicies() {
    return machine().policies;
}

SDConfigDmHelper& SDConfigDmHelper::GetInstance() {
    static const std::string dbPath = storeFolder() + "/" + kPolicyFile;
    static SDConfigDmHelper instance(dbPath);
    return instance;
}

SDConfigDmHelper::SDConfigDmHelper(const std::string& path) : mDatabase(path), mDmHelperTable(mDatabase, kPolicyTable) {
    LOG(5, AT "dmhelperconfig db path=%s", HERE, path.c_str());
    LOG(5, AT "start init DB", HERE);
    initDB();
}

SDConfigDmHelper::~SDConfigDmHelper() = default;

bool SDConfigDmHelper::initDB() {
    const bool succeeded = initDMTable();
    if (!succeeded) LOG(7, AT "failed to init config", HERE);
    LOG(5, AT "init DM database result: %s", HERE, succeeded ? "succeed" : "failed");
    return succeeded;
}

bool SDConfigDmHelper::initDMTable() {
    return key_value::create(mDmHelperTable);
}

bool SDConfigDmHelper::SetPolicyWithUri(const std::string& uri, const PolicyMap& policy) {
    const Stopwatch watch;
    if (policy.empty()) {
        LOG(7, AT "the policy of %s is empty", HERE, uri.c_str());
        return false;
    }
    const auto& [value, priority] = *policy.begin();
    if (const char* problem = keepingProblem(uri, value)) {
        LOG(7, AT "the key %s %s", HERE, uri.c_str(), problem);
        return false;
    }
    if (!isFreeToChange(uri) || !mDmHelperTable.isInPlace()) return false;
    // Sealed before anything is locked, as a secure value is.
    const auto encrypted = sealedText(policyRow(uri), latin1ToUtf8(composePolicyText(value, priority)));
    if (!encrypted) {
        LOG(7, AT "encryption failed, the key is %s", HERE, uri.c_str());
        return false;
    }
    const bool stored = key_value::replace(mDmHelperTable, uri, *encrypted, [&] { deleteStored(uri); });
    if (const int ms = watch.elapsedMs(); ms >= kSlowPolicyMs)
        LOG(6, AT "SetPolicyWithUri %s takes %d ms", HERE, uri.c_str(), ms);
    return stored;
}

PolicyMap SDConfigDmHelper::GetPolicyFromDMtable(const std::string& uri) {
    const Stopwatch watch;
    const std::string encrypted = getValueFromDatabaseTable(mDmHelperTable, uri);
    if (encrypted.empty()) return {};
    const std::string text = openForRow(policyRow(uri), encrypted);
    if (text.empty()) return {};

    auto policy = parsePolicy(text);
    if (!policy) LOG(7, AT "valueWithPriority data format", HERE);
    if (!policy || policy->empty()) return {};

    if (const int ms = watch.elapsedMs(); ms >= kSlowPolicyMs)
        LOG(6, AT "GetPolicyFromDMtable %s takes %d ms", HERE, uri.c_str(), ms);
    return std::move(*policy);
}

PolicyMap SDConfigDmHelper::GetPolicyWithUri(const std::string& uri) {
    return GetPolicyWithUri(uri, nullptr);
}

PolicyMap SDConfigDmHelper::GetPolicyWithUri(const std::string& uri, PolicyLayers* layers) {
    const Stopwatch watch;
    PolicyMap effective = effectiveUnder(machine().policies.get(), uri, layers);
    if (const int ms = watch.elapsedMs(); ms >= kSlowWeighingMs)
        LOG(6, AT "GetPolicyWithUri %s takes %d ms", HERE, uri.c_str(), ms);
    return effective;
}

PolicyMap SDConfigDmHelper::effectiveUnder(const MachinePolicies* policies, const std::string& uri,
                                           PolicyLayers* layers) {
    const auto* const governed = governing(policies, uri);
    PolicyMap policy = governed ? policyOf(*governed->entry) : GetPolicyFromDMtable(uri);
    if (policy.size() >= 2) {
        LOG(7, AT "format is error, size is %zu", HERE_AS("GetPolicyWithUri"), policy.size());
        return {};
    }
    if (layers) *layers = {policy, governed != nullptr, std::nullopt};
    if (governed && governed->entry->priority > kLocalPriority) return policy;
    SDConfigImpl& config = *SDConfigImpl::GetInstance();
    std::string local = config.GetSecure_v3(uri);
    if (layers) layers->local = local;
    return weigh(std::move(policy), std::move(local), [&] { return config.isKeyInDB(uri); });
}

PolicyLayers SDConfigDmHelper::layersOf(const std::string& uri) {
    PolicyLayers layers;
    layers.local = SDConfigImpl::GetInstance()->openedValue_v3(uri);
    if (const auto* const governed = governing(machine().policies.get(), uri)) {
        layers.policy = policyOf(*governed->entry);
        layers.isGoverned = true;
        return layers;
    }
    const std::string sealed = getValueFromDatabaseTable(mDmHelperTable, uri);
    const std::string text = sealed.empty() ? "" : openForRow(policyRow(uri), sealed);
    try {
        if (!text.empty()) layers.policy = parsePolicy(text).value_or(PolicyMap());
    } catch (const std::logic_error&) {  // its priority is none: it has no effect, but that reading it fails
    }
    return layers;
}

PolicyMap SDConfigDmHelper::effectiveOf(PolicyLayers layers, const std::function<bool()>& hasRow) {
    return weigh(std::move(layers.policy), std::move(layers.local).value_or(""), hasRow);
}

PolicyMap SDConfigDmHelper::asStored(const PolicyMap& policy) {
    if (policy.empty()) return {};
    const auto& [value, priority] = *policy.begin();
    return parsePolicy(latin1ToUtf8(composePolicyText(value, priority))).value_or(PolicyMap());
}

bool SDConfigDmHelper::isUnopenable(const std::string& uri) {
    const auto* const governed = governing(machine().policies.get(), uri);
    if (!governed && sd::isUnopenable(policyRow(uri), getValueFromDatabaseTable(mDmHelperTable, uri))) return true;
    const PolicyMap policy = governed ? policyOf(*governed->entry) : GetPolicyFromDMtable(uri);
    const bool isStrong = !policy.empty() && policy.begin()->second > kLocalPriority;
    return !isStrong && SDConfigImpl::GetInstance()->storedBytes_v3(uri) > 0;  // what can be opened is never empty
}

std::size_t SDConfigDmHelper::storedBytes(const std::string& uri) {
    const auto* const governed = governing(machine().policies.get(), uri);
    const std::size_t policy =
        governed ? governed->entry->value.size() : getValueFromDatabaseTable(mDmHelperTable, uri).size();
    return policy + SDConfigImpl::GetInstance()->storedBytes_v3(uri);
}

bool SDConfigDmHelper::DeletePolicyWithUri(const std::string& uri) {
    return isFreeToChange(uri) && deleteStored(uri);
}

bool SDConfigDmHelper::deleteStored(const std::string& uri) {
    return !isStored(uri) || deleteValueFromDatabase(mDmHelperTable, uri);
}

bool SDConfigDmHelper::isStrongControl(const std::string& uri) {
    const PolicyMap effective = GetPolicyWithUri(uri);
    return effective.size() == 1 && effective.begin()->second > kLocalPriority;
}

PolicyList SDConfigDmHelper::GetAllKeys() {
    return *allKeysWithin(SIZE_MAX);
}

std::optional<PolicyList> SDConfigDmHelper::allKeysWithin(std::size_t bytes) {
    constexpr char kCaller[] = "GetAllKeys";
    PolicyList list;
    std::vector<std::string> uris;
    const MachinePolicies* const policies = machine().policies.get();
    const auto add = [&](const std::string& uri, PolicyMap policy) {
        for (const auto& [value, priority] : policy) {
            if (value.size() > bytes) return false;
            bytes -= value.size();
        }
        list[uri] = std::move(policy);
        return true;
    };
    if (policies)
        for (const MachinePolicies::Policy& one : policies->all())
            if (!add(one.entry->uri, policyOf(*one.entry))) return std::nullopt;
    if (!key_value::keys(mDmHelperTable, uris)) {
        LOG(5, AT "mDmHelperTable is empty()", HERE_AS(kCaller));
        return list;
    }
    for (const std::string& uri : uris) {
        if (governing(policies, uri)) continue;
        PolicyMap policy = GetPolicyFromDMtable(uri);
        if (policy.size() >= 2) {
            LOG(5, AT "format is error, size is %zu", HERE_AS(kCaller), policy.size());
            return list;
        }
        if (!add(uri, std::move(policy))) return std::nullopt;
    }
    return list;
}

bool SDConfigDmHelper::isStored(const std::string& uri) {
    return !getValueFromDatabaseTable(mDmHelperTable, uri).empty();
}

bool SDConfigDmHelper::ClearAllKeys() {
    return ClearAllKeys([](const std::string&) {});
}

bool SDConfigDmHelper::ClearAllKeys(const std::function<void(const std::string&)>& deleting) {
    std::vector<std::string> uris;
    if (!key_value::keys(mDmHelperTable, uris)) {
        LOG(5, AT "mDmHelperTable is empty()", HERE);
        return true;
    }
    if (uris.empty()) return true;
    // A commit for each would hold up everybody for as long as the disk takes, times their number.
    data::SQLiteTransaction transaction(mDatabase);
    const auto remove = [&](const std::string& uri) {
        deleting(uri);
        return deleteStored(uri);
    };
    const bool deleted = transaction.isActive() && std::all_of(uris.begin(), uris.end(), remove);
    if (!deleted) LOG(7, AT "DeletePolicyWithUri failed", HERE);
    return transaction.commit() && deleted;
}

std::string SDConfigDmHelper::getValueFromDatabaseTable(data::SQLiteTable& table, const std::string& key) {
    return key_value::get(table, key);
}

bool SDConfigDmHelper::setValueToDatabaseTable(data::SQLiteTable& table, const std::string& key,
                                               const std::string& value) {
    return key_value::set(table, key, value);
}

bool SDConfigDmHelper::deleteValueFromDatabase(data::SQLiteTable& table, const std::string& key) {
    return key_value::remove(table, key);
}

}  // namespace sd
