// watch: changes of the keys that a pattern stands for; which those are, the data folder tells.
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/watch/watch.h"

namespace cli {

namespace {

// None where the folder can't be read.
std::set<std::string> storedKeys(const Request& request, const Service& service) {
    std::set<std::string> keys;
    const DataAccess access = findData(request, service);
    if (!access.reader) return keys;
    std::vector<apps::Row> rows;
    (void)access.reader->secureRows(rows);
    for (const apps::Row& row : rows) keys.insert(row.key);
    (void)access.reader->policyRows(rows);
    for (const apps::Row& row : rows) keys.insert(row.key);
    return keys;
}

}  // namespace

int watchPatterns(const Request& request, Service& service) {
    return watch(request, service, [&] { return storedKeys(request, service); });
}

}  // namespace cli
