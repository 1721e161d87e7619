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

// What is wrong at a place of a text; never with a value in it.
struct PolicyFault {
    int line = 0;
    std::string uri;     // "": of no policy
    std::string field;   // "": of no field
    std::string what;    // behind the place: "is a text; it has to be ..."
    std::string remedy;  // what to do about it

    std::string place() const;  // "line 3, "uri", "priority""
};

struct LintedPolicies {
    std::vector<PolicyEntry> entries;  // those that are as they have to be, in the order of the file
    std::vector<PolicyFault> faults;
};

// Checks the whole text, and goes on behind each fault for as long as the text is JSON. Any bytes are safe.
LintedPolicies lintPolicyFile(const std::string& text, PolicyForm form);

// Checks the whole text up to its first fault: any bytes are safe.
PolicyFile parsePolicyFile(const std::string& text, PolicyForm form = PolicyForm::Stored);

// Why the entry can't stand in a file; "" where it can.
std::string unfitForFile(const PolicyEntry& entry);

// The text of a file with the entries, a line each.
std::string composePolicyFile(const std::vector<PolicyEntry>& entries);

}  // namespace sd
