#include "apps/sdconfig/reading/policy_lint.h"

#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>

#include "apps/sdconfig/described/described_keys.h"
#include "apps/sdconfig/files/named_files.h"
#include "apps/sdconfig/files/whole_file.h"
#include "apps/sdconfig/terminal/messages.h"
#include "base/letter_case.h"
#include "policies/policy_file.h"
#include "policies/policy_folders.h"
#include "policies/policy_users.h"

namespace cli {

namespace {

using sd::PolicyEntry;

constexpr std::chrono::milliseconds kNameLimit{2000};
constexpr std::size_t kMeantMost = 100;  // keys for which it is worth its time to look what was meant

std::string placeOf(const PolicyEntry& entry) {
    return "line " + std::to_string(entry.line) + ", " + quoted(entry.uri);
}

class Linter {
public:
    explicit Linter(sd::Descriptions& descriptions) : mDescriptions(descriptions) {}
    void take(const std::vector<std::string>& paths);
    LintResult finish();

private:
    struct Earlier {
        std::string file;
        PolicyEntry entry;
    };

    void lint(const NamedFile& file);
    void weigh(const std::string& file, const PolicyEntry& entry);
    void compare(const std::string& file, const PolicyEntry& entry);
    void lookUpUsers();
    void fault(const std::string& file, const std::string& what, const std::string& next) {
        mResult.findings.push_back({true, file, "", 0, "", what, next});
    }
    void warn(const std::string& file, const PolicyEntry& entry, const std::string& what, const std::string& next) {
        mResult.findings.push_back({false, file, placeOf(entry), entry.line, entry.uri, what, next});
    }

    sd::Descriptions& mDescriptions;
    std::size_t mUndescribed = 0;
    std::vector<NamedFile> mFiles;
    std::map<std::string, Earlier> mByUri;                // without letter case
    std::map<std::string, std::vector<Earlier>> mByUser;  // whom "users" names, and where
    LintResult mResult;
};

void Linter::take(const std::vector<std::string>& paths) {
    NamedFiles named = namedFiles(paths, sd::isPolicyFileName);
    for (const auto& [folder, why] : named.unreadable)
        fault(folder, "the folder can't be read: " + why, "make it readable");
    mFiles = std::move(named.files);
    for (const NamedFile& file : mFiles) lint(file);
}

void Linter::lint(const NamedFile& file) {
    std::string text;
    const std::string problem =
        file.problem.empty() ? readWhole(file.path, sd::kPolicyFileBytesMax, text) : file.problem;
    ++mResult.files;
    if (!problem.empty())
        return fault(file.path, problem, "a file of policies is regular, and has at most 4 MiB: split it in two");
    if (text.empty()) return;  // takes the place of another, and leaves it empty
    sd::LintedPolicies found = sd::lintPolicyFile(text, sd::PolicyForm::Machine);
    for (const sd::PolicyFault& one : found.faults)
        mResult.findings.push_back({true, file.path, one.place(), one.line, one.uri, one.what, one.remedy});
    mResult.entries += found.entries.size();
    const auto isOfThatName = [&](const NamedFile& other) { return &other > &file && other.name == file.name; };
    if (std::any_of(mFiles.begin(), mFiles.end(), isOfThatName)) return;  // one of a later folder counts instead
    for (const PolicyEntry& entry : found.entries) {
        for (const std::string& user : entry.users) mByUser[user].push_back({file.path, entry});
        compare(file.path, entry);
        weigh(file.path, entry);
    }
}

// Of files that are taken after each other. A policy for some users alone is meant to come before one for all.
void Linter::compare(const std::string& file, const PolicyEntry& entry) {
    const auto [at, isNew] = mByUri.try_emplace(sd::folded(entry.uri), Earlier{file, entry});
    if (isNew) return;
    const Earlier earlier = std::exchange(at->second, Earlier{file, entry});
    const std::string there = earlier.file + ", line " + std::to_string(earlier.entry.line);
    if (earlier.entry.uri != entry.uri)
        warn(file, entry, "differs only in letter case from " + quoted(earlier.entry.uri) + " in " + there,
             "spell both alike: they are one policy");
    if (!entry.users.empty()) return;
    if (earlier.entry.value == entry.value && earlier.entry.priority == entry.priority)
        warn(file, entry, "says again what stands in " + there, "keep one of the two");
    else
        warn(file, entry, "disagrees with " + there + ", and counts, as its file is the later one by its name",
             "keep the one that is meant, or give the earlier one another purpose with \"users\" in a later file");
}

// Against the description of its key.
void Linter::weigh(const std::string& file, const PolicyEntry& entry) {
    if (mDescriptions.isEmpty()) return;
    const auto found = mDescriptions.find(entry.uri);
    if (!found) {
        const std::string near = ++mUndescribed <= kMeantMost ? mDescriptions.near(entry.uri) : "";
        return warn(file, entry, "is described nowhere",
                    near.empty() ? "look at its spelling" : "did you mean " + quoted(near) + "?");
    }
    std::string value = entry.value;
    if (const Problem problem = misfit(*found, Target::Policy, value))
        return mResult.findings.push_back(
            {true, file, placeOf(entry), entry.line, entry.uri, problem.what, problem.next});
    if (value != entry.value)
        warn(file, entry, "has a value in another form than programs write",
             found->description.isSecret ? "write it as secure set stores it" : "write " + quoted(value));
    if (found->description.isDeprecated)
        warn(file, entry, "is deprecated",
             found->description.replacedBy.empty() ? "delete it" : "use " + quoted(found->description.replacedBy));
}

void Linter::lookUpUsers() {
    std::set<std::string> names;
    for (const auto& [name, places] : mByUser) names.insert(name);
    sd::PolicyUsers users(::geteuid(), sd::systemUsers(), kNameLimit, nullptr);
    for (const auto& [name, why] : users.lookUp(names))
        for (const Earlier& one : mByUser.at(name))
            warn(one.file, one.entry, "\"users\" names " + quoted(name) + ", which " + why,
                 "correct the name, if the machines that get the file don't know it either");
}

LintResult Linter::finish() {
    lookUpUsers();
    return std::move(mResult);
}

}  // namespace

LintResult lintPolicyFiles(const std::vector<std::string>& paths, sd::Descriptions& descriptions) {
    Linter linter(descriptions);
    linter.take(paths);
    return linter.finish();
}

}  // namespace cli
