// Reads tables of a database that a service may be using, and leaves no trace: it creates, changes and deletes nothing.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace apps {

struct Row {
    std::string key;
    std::string value;    // as it stands in the row: a secure value or a policy is sealed, or ""
    bool isFound = true;  // by its key; one that is a blob is none that the service asks for
};

struct Tables {
    std::map<std::string, std::vector<Row>>
        rows;             // by table, in the order of the rows; a table that isn't there has none
    std::string problem;  // for a person, with the path; "" where all was read
};

// Reads the tables, all of them as they stood at one moment. key: only that key's rows, whatever its letter case.
Tables readTables(const std::string& database, const std::vector<std::string>& tables,
                  const std::optional<std::string>& key = std::nullopt);

}  // namespace apps
