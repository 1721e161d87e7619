// A data folder looked at as a whole, whether the service runs or not. Creates and changes nothing in it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/data/data_files.h"
#include "apps/data/finding.h"
#include "apps/data/untouched_database.h"

namespace apps {

struct DatabaseCheck {
    std::vector<Finding> damage;  // what keeps the database from being served as it is
    std::vector<Finding> rows;    // values that can't be opened, policies that are none
    std::size_t count = 0;        // of secure values or policies
    std::size_t sealed = 0;       // of those that take the key ring
};

// Opens every sealed row with the key ring, which the security layer has to know; with none that can be used the rows
// are counted alone. use: what else is done with the connection, at the same moment, where there is no damage.
DatabaseCheck checkDatabase(const std::string& path, const DatabaseLayout& layout, const Stop& stop = nullptr,
                            const DatabaseUse& use = nullptr);

struct DataCheck {
    std::vector<Finding> findings;
    std::size_t secure = 0;
    std::size_t policies = 0;
};

// Whether it holds a database or a key ring; and what to say where it does not.
bool isDataFolder(const std::string& folder);
std::optional<Finding> folderFinding(const std::string& folder);

// What to do about the first database of the folder that can't be read as it is; "" where there is none.
std::string remedyFor(const std::string& folder);

// Whether a value of the folder takes the key ring.
bool holdsSealedValues(const std::string& folder);

// Both databases, the key ring, and who else can get at the files.
DataCheck checkData(const std::string& folder, const Stop& stop = nullptr);

// Whether the folder is another user's, so that its key ring can't be used; and what to do about that.
inline constexpr char kRunAsThat[] = "run it as that user";
bool belongsToAnother(const std::string& folder);

}  // namespace apps
