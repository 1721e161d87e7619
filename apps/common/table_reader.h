// Reads tables of a database that a service may be using, and leaves no trace: it creates, changes and deletes nothing.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace apps {

struct Row {
    std::string key;
    std::string value;  // as it stands in the row: a secure value or a policy is sealed, or ""
};

struct Tables {
    std::map<std::string, std::vector<Row>>
        rows;             // by table, in the order of the rows; a table that isn't there has none
    std::string problem;  // for a person, with the path; "" where all was read
};

// Reads the tables, all of them as they stood at one moment. key: only that key's rows, whatever its letter case.
//
// Whoever opens a database in WAL mode the plain way makes its log and index files where they are missing, even when he
// only reads. So a database with both is read through them, as they are, whether a service lives or was killed; one
// without a log is read alone; one with a log but no index, a copy from somewhere, is read in a copy of our own.
Tables readTables(const std::string& database, const std::vector<std::string>& tables,
                  const std::optional<std::string>& key = std::nullopt);

}  // namespace apps
