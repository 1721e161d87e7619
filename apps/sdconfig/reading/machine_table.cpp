#include "apps/sdconfig/reading/machine_table.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "apps/sdconfig/service/policy_calls.h"
#include "apps/sdconfig/service/service.h"
#include "base/letter_case.h"
#include "platform/sdbus/sdbus.h"
#include "policies/policy_folders.h"
#include "policies/policy_users.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

constexpr std::chrono::milliseconds kNameLimit{2000};

// Reads an answer's arguments one after the other.
class Reader {
public:
    explicit Reader(SDBusMessage& message) : mMessage(message) {}

    bool flag() { return mMessage.getBool(mAt++); }
    std::size_t count() { return static_cast<std::size_t>(std::max(0, mMessage.getInt32(mAt++))); }
    std::string text() { return mMessage.getString(mAt++); }
    sd::PolicySource source() {
        sd::PolicySource source;
        source.path = text();
        source.state = static_cast<sd::PolicySource::State>(mMessage.getInt(mAt++));
        source.detail = text();
        return source;
    }

private:
    SDBusMessage& mMessage;
    int mAt = 0;
};

MachineStatus statusOf(SDBusMessage& answer) {
    MachineStatus status;
    Reader reader(answer);
    status.isHere = reader.flag();
    if (!status.isHere) return status;
    status.reading.when += std::chrono::milliseconds(std::strtoll(reader.text().c_str(), nullptr, 10));
    status.isWatching = reader.flag();
    status.governed = reader.count();
    for (std::size_t left = reader.count(); left > 0; --left) status.reading.folders.push_back(reader.source());
    for (std::size_t left = reader.count(); left > 0; --left) {
        status.reading.files.push_back(reader.source());
        status.reading.files.back().policies = reader.count();
    }
    for (std::size_t left = reader.count(); left > 0; --left) {
        const std::string name = reader.text();
        status.reading.nobody[name] = reader.text();
    }
    return status;
}

}  // namespace

MachineTable::MachineTable(std::vector<apps::MachinePolicy> policies) : mPolicies(std::move(policies)) {}

MachineTable::MachineTable(const sd::MachinePolicies& policies) {
    mPolicies.reserve(policies.all().size());
    for (const auto& one : policies.all()) {
        const sd::PolicyEntry& entry = *one.entry;
        mPolicies.push_back(
            {entry.uri, {entry.value, entry.priority}, policies.pathOf(one), entry.line, entry.description});
    }
}

std::optional<apps::MachinePolicy> MachineTable::find(const std::string& uri) const {
    const auto found = std::lower_bound(
        mPolicies.begin(), mPolicies.end(), uri,
        [](const apps::MachinePolicy& one, const auto& name) { return sd::compareFolded(one.uri, name) < 0; });
    const bool isFound = found != mPolicies.end() && sd::compareFolded(found->uri, uri) == 0;
    return isFound ? std::optional(*found) : std::nullopt;
}

std::shared_ptr<const sd::MachinePolicies> readPolicyFolders(const std::vector<std::string>& folders, uid_t owner) {
    sd::PolicyUsers users(::geteuid(), sd::systemUsers(), kNameLimit, nullptr);
    return sd::PolicyFolders(folders, owner).read(users);
}

MachineTable machineTable(const Service& service) {
    if (service.listening()) return MachineTable(listGoverning(service).value_or(std::vector<apps::MachinePolicy>()));
    return MachineTable(*readPolicyFolders(sd::standardPolicyFolders(), 0));
}

std::optional<MachineStatus> machineStatus(const Service& service) {
    if (service.listening()) {
        const auto answer = service.tryToAskKnown(
            sd::protocol::kPoliciesStatus, [](SDBusMessage&) {}, "b");
        return answer ? std::optional(statusOf(*answer)) : std::nullopt;
    }
    const auto policies = readPolicyFolders(sd::standardPolicyFolders(), 0);
    return MachineStatus{true, false, false, policies->all().size(), policies->status()};
}

bool isAmiss(const sd::PolicySource& source) {
    return source.state == sd::PolicySource::State::LeftOut || source.state == sd::PolicySource::State::Kept;
}

}  // namespace cli
