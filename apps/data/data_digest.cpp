#include "apps/data/data_digest.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <vector>

#include "apps/common/digest_text.h"
#include "apps/data/data_reader.h"
#include "apps/data/table_reader.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_sealed_row.h"

namespace apps {

namespace {

// What a row holds. kind: how that is to be understood, so that no text passes for one of another kind.
struct Content {
    std::string kind;
    std::string value;
};

Content contentOf(const DatabaseLayout& layout, const std::string& table, const Row& row) {
    if (!row.isFound) return {"not found", row.value};
    if (table != layout.sealedTable) return {"plain", row.value};
    if (&layout == &kPolicyLayout) {
        const std::optional<Policy> policy = DataReader::policy(row);
        return policy ? Content{"policy " + std::to_string(policy->priority), policy->value}
                      : Content{"sealed", row.value};
    }
    const std::optional<std::string> value = DataReader::secureValue(row);
    return value ? Content{"value", *value} : Content{"sealed", row.value};
}

// One for each row.
class RowDigests {
public:
    RowDigests(const std::string& keyId, const Stop& stop) : mKeyId(keyId), mStop(stop) {}

    // Returns why they can't be made, or "".
    std::string add(const std::string& folder, const DatabaseLayout& layout) {
        const Tables tables = readTables(folder + "/" + layout.file, layout.tables);
        if (!tables.problem.empty()) return tables.problem;
        for (const auto& [table, rows] : tables.rows)
            for (const Row& row : rows) {
                if (mDigests.size() % kRowsBetweenAsking == 0 && mStop && mStop()) return "interrupted";
                if (!add(layout, table, row)) return "the key ring has no key " + mKeyId + " that may open";
            }
        return "";
    }

    // In an order that does not depend on that of the rows.
    std::string all() {
        std::sort(mDigests.begin(), mDigests.end());
        return make(std::vector<std::string_view>(mDigests.begin(), mDigests.end()));
    }

private:
    bool add(const DatabaseLayout& layout, const std::string& table, const Row& row) {
        const Content content = contentOf(layout, table, row);
        mDigests.push_back(make({layout.file, table, row.key, content.kind, content.value}));
        return !mDigests.back().empty();
    }

    std::string make(const std::vector<std::string_view>& texts) const {
        return sd::SDSecurity::DigestUnderKey(mKeyId, texts);
    }

    static constexpr std::size_t kRowsBetweenAsking = 256;

    const std::string& mKeyId;
    const Stop& mStop;
    std::vector<std::string> mDigests;
};

}  // namespace

DataDigest digestOf(const std::string& folder, const std::string& noted, const Stop& stop) {
    const std::string id = noted.empty() ? sd::sealingKey() : keyIdOfDigest(noted);
    if (id.empty()) return {"", "no key ring that can be used is there"};
    RowDigests digests(id, stop);
    for (const DatabaseLayout* layout : kLayouts)
        if (std::string problem = digests.add(folder, *layout); !problem.empty()) return {"", problem};
    const std::string digits = digests.all();
    if (digits.empty()) return {"", "the key ring has no key " + id + " that may open"};
    return {digestText(id, digits), ""};
}

}  // namespace apps
