// The file of policies: {"URI": {"value": "text", "priority": 7}, ...}. sdconfig-policy(5) has its rules.
#pragma once

#include <string>
#include <vector>

namespace sd {

struct PolicyEntry {
    std::string uri;
    std::string value;
    int priority = 0;

    // Of a policy that was read: where its URI stands. The other two are the machine's policies' alone.
    int line = 0;
    std::string description{};         // for whoever asks why
    std::vector<std::string> users{};  // whom it governs: names, uids and "@group"; none: everybody
};

// Who the file is for: the user's own store, or all services of the machine, where "description" and "users" may stand.
enum class PolicyForm { Stored, Machine };

struct PolicyFile {
    std::vector<PolicyEntry> entries;  // in the order of the file
    std::string problem;               // what is wrong: line, URI and field, never a value; "" for a sound file
};

// Checks the whole text: any bytes are safe.
PolicyFile parsePolicyFile(const std::string& text, PolicyForm form = PolicyForm::Stored);

// Why the entry can't stand in a file; "" where it can.
std::string unfitForFile(const PolicyEntry& entry);

// The text of a file with the entries, a line each.
std::string composePolicyFile(const std::vector<PolicyEntry>& entries);

}  // namespace sd
