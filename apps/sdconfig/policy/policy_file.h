// The file of policies: {"URI": {"value": "text", "priority": 7}, ...}. sdconfig-policy(5) has its rules.
#pragma once

#include <string>
#include <vector>

namespace cli {

struct PolicyEntry {
    std::string uri;
    std::string value;
    int priority = 0;
};

struct PolicyFile {
    std::vector<PolicyEntry> entries;  // in the order of the file
    std::string problem;               // what is wrong: line, URI and field, never a value; "" for a sound file
};

// Checks the whole text: any bytes are safe.
PolicyFile parsePolicyFile(const std::string& text);

// Why the entry can't stand in a file; "" where it can.
std::string unfitForFile(const PolicyEntry& entry);

// The text of a file with the entries, a line each.
std::string composePolicyFile(const std::vector<PolicyEntry>& entries);

}  // namespace cli
