// Files of policies: hostile texts, that what is exported can be imported, and what several files come to.
#include "policies/policy_file.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <map>
#include <set>

#include "base/letter_case.h"
#include "fuzz/support.h"
#include "policies/machine_policies.h"
#include "policies/policy_value.h"

namespace {

using Entries = std::vector<sd::PolicyEntry>;

constexpr std::size_t kProblemMax = 1024;

bool same(const Entries& one, const Entries& other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(), [](const auto& a, const auto& b) {
        return a.uri == b.uri && a.value == b.value && a.priority == b.priority;
    });
}

void readBack(const Entries& entries) {
    const sd::PolicyFile again = sd::parsePolicyFile(sd::composePolicyFile(entries));
    fuzz::expect(again.problem.empty() && same(again.entries, entries), "what was written reads back");
}

void checkProblem(const std::string& problem) {
    fuzz::expect(problem.size() <= kProblemMax, "a problem is a line");
    fuzz::expect(std::none_of(problem.begin(), problem.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }),
                 "a problem holds no control characters");
}

void parse(const std::string& text) {
    const sd::PolicyFile file = sd::parsePolicyFile(text);
    if (!file.problem.empty()) {
        checkProblem(file.problem);
        return fuzz::expect(file.entries.empty(), "a file with a problem has no entries");
    }
    std::set<std::string> seen;
    for (const sd::PolicyEntry& entry : file.entries) {
        fuzz::expect(seen.insert(sd::folded(entry.uri)).second, "no two URIs differ in letter case alone");
        fuzz::expect(sd::unfitForFile(entry).empty(), "what a file has can stand in a file");
    }
    readBack(file.entries);
}

// URIs as a store can have them: any bytes but zero, no two that differ in letter case alone.
void compose(FuzzedDataProvider& input) {
    Entries entries;
    std::set<std::string> seen;
    while (input.remaining_bytes() > 0 && entries.size() < 8) {
        sd::PolicyEntry entry;
        entry.priority = input.ConsumeIntegral<int>() % 130;
        entry.uri = input.ConsumeRandomLengthString(32);
        entry.value = input.ConsumeRandomLengthString(32);
        if (entry.uri.find('\0') != std::string::npos) continue;
        if (sd::unfitForFile(entry).empty() && seen.insert(sd::folded(entry.uri)).second) entries.push_back(entry);
    }
    readBack(entries);
}

// The text cut into files, as folders hold them: of each URI the last one's policy counts.
void govern(const std::string& text) {
    constexpr char kNextFile = '\x1e';  // stands in no sound file
    std::vector<sd::MachinePolicies::File> files;
    std::map<std::string, std::string> wanted;  // by the URI without letter case: the value
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(kNextFile, begin), text.size());
        sd::PolicyFile file = sd::parsePolicyFile(text.substr(begin, end - begin), sd::PolicyForm::Machine);
        begin = end + 1;
        if (!file.problem.empty()) checkProblem(file.problem);
        for (const sd::PolicyEntry& entry : file.entries) {
            fuzz::expect(entry.line > 0, "a policy has a line");
            if (entry.users.empty()) wanted[sd::folded(entry.uri)] = entry.value;
        }
        files.push_back({"", std::make_shared<const Entries>(std::move(file.entries))});
    }
    const auto isForAll = [](const sd::PolicyEntry& entry) { return entry.users.empty(); };
    const sd::MachinePolicies machine(std::move(files), isForAll);
    fuzz::expect(machine.all().size() == wanted.size(), "each URI has one policy");
    for (const auto& [uri, value] : wanted) {
        const auto* const found = machine.find(uri);
        fuzz::expect(found && found->entry->value == value, "the last file's policy counts");
    }
    fuzz::expect(
        sd::changedUris(nullptr, &machine).size() == wanted.size() && sd::changedUris(&machine, &machine).empty(),
        "what changed is what differs");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    parse(fuzz::text(data, size));
    govern(fuzz::text(data, size));
    FuzzedDataProvider input(data, size);
    compose(input);
    return 0;
}
