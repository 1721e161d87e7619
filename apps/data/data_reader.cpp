#include "apps/data/data_reader.h"

#include <charconv>
#include <filesystem>

#include "apps/data/database_check.h"
#include "libsdconfig/sdconfig_text.h"
#include "libsdconfig/sdconfig_types.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_policy_text.h"
#include "src/sdconfig_sealed_row.h"

namespace apps {

namespace {

bool isThere(const std::string& path) {
    std::error_code failure;
    return std::filesystem::exists(path, failure) || (failure && failure != std::errc::no_such_file_or_directory);
}

std::optional<int> decimal(const std::string& text) {
    int number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, number);
    if (failure != std::errc() || stop != end || number < 0) return std::nullopt;
    return number;
}

RowFault faultOf(sd::SDSecurity::OpenResult why, const std::string& cipher) {
    using Result = sd::SDSecurity::OpenResult;
    static constexpr char kRestore[] =
        "restore the databases and the key ring from the same backup, or set or delete it";
    if (why == Result::OtherRow) return {"belongs to another row", kRestore};
    if (why == Result::UnboundForm) return {"is bound to no row, which the key ring no longer allows", kRestore};
    if (why == Result::RingLocked) return {"can't be opened while the key ring is locked", kOpenRing};
    if (why != Result::KeyDisabled) return {"can't be opened with the key ring", kRestore};
    const auto seal = sd::SDSecurity::SealOf(cipher);
    return {"is sealed with a disabled key", "enable the key " + (seal ? seal->keyId : "") + ", or set or delete it"};
}

// "" where it can't be opened.
std::string opened(const sd::SDSecurityRow& row, const std::string& cipher, RowFault* fault) {
    sd::SDSecurity::OpenResult why{};
    std::string plain = sd::openForRow(row, cipher, &why);
    if (plain.empty() && fault) *fault = faultOf(why, cipher);
    return plain;
}

}  // namespace

DataReader::DataReader(const std::string& folder) : mFolder(folder) {
    sd::SDSecurity::GetInstance()->SetKeyRingFolder(folder);
}

std::string DataReader::rowsOf(const DatabaseLayout& layout, const std::optional<std::string>& key,
                               std::vector<Row>& rows) const {
    const std::string path = mFolder + "/" + layout.file;
    const std::string table = layout.sealedTable;
    rows.clear();
    if (mMissingIsEmpty && !isThere(path) && (hasSecure() || hasPolicies())) return "";
    Tables tables = readTables(path, {table}, key);
    if (!tables.problem.empty()) return tables.problem;
    const auto found = tables.rows.find(table);
    if (found == tables.rows.end()) return path + " lacks its table " + table;
    rows = std::move(found->second);
    return "";
}

std::string DataReader::secureRows(std::vector<Row>& rows, const std::optional<std::string>& key) const {
    return rowsOf(kSecureLayout, key, rows);
}

std::string DataReader::policyRows(std::vector<Row>& rows, const std::optional<std::string>& key) const {
    return rowsOf(kPolicyLayout, key, rows);
}

bool DataReader::hasSecure() const {
    return isThere(mFolder + "/" + kSecureLayout.file);
}

bool DataReader::hasPolicies() const {
    return isThere(mFolder + "/" + kPolicyLayout.file);
}

std::optional<std::string> DataReader::secureValue(const Row& row, RowFault* fault) {
    if (row.value.empty()) return "";
    const std::string value = opened(sd::secureRow(row.key), row.value, fault);
    if (value.empty()) return std::nullopt;
    return sd::textAsSet(value);
}

std::optional<Policy> DataReader::policy(const Row& row, RowFault* fault) {
    static const RowFault kNoPolicy{"holds no value and priority", "set or delete it"};
    if (fault) *fault = kNoPolicy;
    const std::string text = row.value.empty() ? "" : opened(sd::policyRow(row.key), row.value, fault);
    if (text.empty()) return std::nullopt;
    const auto [value, priorityText] = sd::splitPolicyText(text);
    const std::optional<int> priority = decimal(priorityText);
    if (!priority) return std::nullopt;
    return Policy{value == sd::kNullValue ? "" : sd::textAsSet(value), *priority};
}

std::string DataReader::ringProblem() {
    const auto ring = sd::SDSecurity::GetInstance()->CheckKeyRing();
    using State = sd::SDSecurity::KeyRingState;
    if (ring.state == State::Usable) return "";
    return (ring.state == State::Locked ? "the key ring can't be opened now: " : "the key ring can't be used: ") +
           ring.detail;
}

std::string DataReader::ringRemedy() {
    const bool isLocked = sd::SDSecurity::GetInstance()->CheckKeyRing().state == sd::SDSecurity::KeyRingState::Locked;
    return isLocked ? kOpenRing : "";
}

}  // namespace apps
