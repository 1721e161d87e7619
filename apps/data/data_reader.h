// The one reader of a service's data folder: secure values and policies, whether the service runs or not. It creates
// and changes nothing there, no key ring either.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/common/policy.h"
#include "apps/data/data_files.h"
#include "apps/data/table_reader.h"

namespace apps {

// Why a row can't be read, for a person.
struct RowFault {
    std::string what;  // with the row before it: "belongs to another row"
    std::string next;  // what to do about it
};

class DataReader {
public:
    // Names the folder of the key ring to the security layer: one folder a process, before anything is sealed or
    // opened.
    explicit DataReader(const std::string& folder);

    // Makes one database that is not there, beside the other, read as one without rows. Not for a folder that is in
    // use: its service still has what was deleted.
    void takeMissingForEmpty() { mMissingIsEmpty = true; }

    // Puts the rows of secure values, or of policies, into `rows`. key: only the row of that key, whatever its letter
    // case. Returns a line for a person, with the path, or "".
    std::string secureRows(std::vector<Row>& rows, const std::optional<std::string>& key = std::nullopt) const;
    std::string policyRows(std::vector<Row>& rows, const std::optional<std::string>& key = std::nullopt) const;

    // What a row holds, opened with the key ring, as it was set; "" for an empty row. Nothing when it can't be opened,
    // or is no policy; fault, unless null, tells how that is then.
    static std::optional<std::string> secureValue(const Row& row, RowFault* fault = nullptr);
    static std::optional<Policy> policy(const Row& row, RowFault* fault = nullptr);

    // Why the key ring can't open anything; "" where it can.
    static std::string ringProblem();
    // How a ring that is locked is opened; "" where it isn't.
    static std::string ringRemedy();

    // Whether the database of secure values, or of policies, is there at all.
    bool hasSecure() const;
    bool hasPolicies() const;

    const std::string& folder() const { return mFolder; }

private:
    std::string rowsOf(const DatabaseLayout& layout, const std::optional<std::string>& key,
                       std::vector<Row>& rows) const;

    std::string mFolder;
    bool mMissingIsEmpty = false;
};

}  // namespace apps
