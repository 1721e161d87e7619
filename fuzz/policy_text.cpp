// The text of a policy: taken apart, and behind the store's checks as a row that somebody damaged or planted.
#include "src/sdconfig_policy_text.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "base/text.h"
#include "fuzz/support.h"
#include "libsdconfig/sdconfig.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_impl_policy.h"
#include "src/sdconfig_key_value_table.h"
#include "src/sdconfig_sealed_row.h"

namespace {

constexpr char kUri[] = "uri";

// The store, and the same table without the store's checks.
struct Store {
    const std::string path = prepare() + "/dmhelper.db";
    sd::SDConfigDmHelper policies{path};
    sd::data::SQLiteDatabase database{path};
    sd::data::SQLiteTable table{database, "dmhelperconfig"};

    Store() { fuzz::expect(sd::key_value::create(table), "the table opens"); }

    static std::string prepare() {
        fuzz::hideLog();
        std::string folder = fuzz::makeFolder();
        sd::SDSecurity::GetInstance()->SetKeyRingFolder(folder);
        return folder;
    }
};

// Nothing where the store lets std::stoi's exception through.
std::optional<sd::PolicyMap> read(Store& store) {
    try {
        return store.policies.GetPolicyFromDMtable(kUri);
    } catch (const std::invalid_argument&) {
        return std::nullopt;
    } catch (const std::out_of_range&) {
        return std::nullopt;
    }
}

bool isDecimal(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

void plant(Store& store, const std::string& text) {
    const std::string sealed = sd::sealForRow(sd::policyRow(kUri), text);
    fuzz::expect(sd::key_value::set(store.table, kUri, sealed), "the row can be written");
    const auto [value, priority] = sd::splitPolicyText(text);
    fuzz::expect(text == value + "&&&" + priority || text == value + priority, "nothing is lost between the parts");
    fuzz::expect(value.find("&&&") == std::string::npos, "the first separator counts");
    const auto policy = read(store);
    if (!isDecimal(priority)) return fuzz::expect(!policy || policy->empty(), "what is no number is no policy");
    const std::string digits = priority.substr(std::min(priority.find_first_not_of('0'), priority.size() - 1));
    const bool fits = digits.size() < 10 || (digits.size() == 10 && digits <= "2147483647");
    if (!fits) return fuzz::expect(!policy, "what is beyond an int is told");
    const sd::PolicyMap wanted{{value.empty() ? sd::kNullValue : value, std::stoi(priority)}};
    fuzz::expect(policy == wanted, "a sound text is read as it stands");
}

void store(Store& store, const std::string& value, int priority) {
    const std::string text = sd::latin1ToUtf8(value);
    fuzz::expect(store.policies.SetPolicyWithUri(kUri, {{value, priority}}), "any value is stored");
    const auto policy = read(store);
    if (value.find('\0') != std::string::npos) return;  // cut there, with its priority
    fuzz::expect(policy.has_value(), "what was stored has a priority");
    // A separator's own bytes.
    if (text.find("&&&") != std::string::npos || (!text.empty() && text.back() == '&')) return;
    fuzz::expect(
        sd::splitPolicyText(sd::composePolicyText(text, priority)) == std::pair(text, std::to_string(priority)),
        "what was composed is taken apart");
    const sd::PolicyMap wanted{{text.empty() ? sd::kNullValue : text, priority}};
    fuzz::expect(policy == (priority < 0 ? sd::PolicyMap{} : wanted), "what was stored reads back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static Store sStore;
    if (size == 0) return 0;
    plant(sStore, fuzz::text(data, size));
    store(sStore, fuzz::text(data + 1, size - 1), static_cast<int8_t>(data[0]));
    return 0;
}
