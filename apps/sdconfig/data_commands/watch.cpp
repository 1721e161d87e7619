// watch: changes of keys as they happen. Which keys a pattern stands for, and who makes a change, the data folder
// tells.
#include "apps/sdconfig/watch/watch.h"

#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/trail/entry_words.h"
#include "apps/sdconfig/trail/key_history.h"

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

std::optional<Doer> lastDoer(const Request& request, const Service& service, const std::string& key) {
    const DataAccess access = findData(request, service);
    const auto line = access.reader ? lastChangeOf(access.reader->folder(), key) : std::nullopt;
    return line ? std::optional(Doer{byDoer(line->entry), objectOf(line->text)}) : std::nullopt;
}

}  // namespace

int watchKeys(const Request& request, Service& service) {
    return watch(
        request, service, [&] { return storedKeys(request, service); },
        [&](const std::string& key) { return lastDoer(request, service, key); });
}

}  // namespace cli
