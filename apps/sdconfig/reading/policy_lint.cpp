#include "apps/sdconfig/reading/policy_lint.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "apps/sdconfig/files/whole_file.h"
#include "apps/sdconfig/terminal/messages.h"
#include "base/letter_case.h"
#include "policies/policy_file.h"
#include "policies/policy_folders.h"
#include "policies/policy_users.h"

namespace cli {

namespace {

namespace fs = std::filesystem;
using sd::PolicyEntry;

constexpr std::chrono::milliseconds kNameLimit{2000};

struct File {
    std::string path;
    std::string name;
};

class Linter {
public:
    void take(const std::vector<std::string>& paths);
    LintResult finish();

private:
    struct Earlier {
        std::string file;
        PolicyEntry entry;
    };

    void takeFolder(const std::string& path);
    void lint(const File& file);
    void compare(const std::string& file, const PolicyEntry& entry);
    void lookUpUsers();
    void fault(const std::string& file, const std::string& what, const std::string& next) {
        mResult.findings.push_back({true, file, "", 0, "", what, next});
    }
    void warn(const std::string& file, const PolicyEntry& entry, const std::string& what, const std::string& next) {
        mResult.findings.push_back({false, file, "line " + std::to_string(entry.line) + ", " + quoted(entry.uri),
                                    entry.line, entry.uri, what, next});
    }

    std::vector<File> mFiles;
    std::map<std::string, Earlier> mByUri;                // without letter case
    std::map<std::string, std::vector<Earlier>> mByUser;  // whom "users" names, and where
    LintResult mResult;
};

void Linter::take(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
        std::error_code failure;
        if (fs::is_directory(path, failure))
            takeFolder(path);
        else
            mFiles.push_back({path, fs::path(path).filename()});
    }
    std::stable_sort(mFiles.begin(), mFiles.end(), [](const File& a, const File& b) { return a.name < b.name; });
    for (const File& file : mFiles) lint(file);
}

void Linter::takeFolder(const std::string& path) {
    std::error_code failure;
    for (fs::directory_iterator entry(path, failure), end; !failure && entry != end; entry.increment(failure)) {
        const std::string name = entry->path().filename();
        if (sd::isPolicyFileName(name)) mFiles.push_back({entry->path(), name});
    }
    if (failure) fault(path, "the folder can't be read: " + failure.message(), "make it readable");
}

void Linter::lint(const File& file) {
    std::string text;
    const std::string problem = readWhole(file.path, sd::kPolicyFileBytesMax, text);
    ++mResult.files;
    if (!problem.empty())
        return fault(file.path, problem, "a file of policies is regular, and has at most 4 MiB: split it in two");
    if (text.empty()) return;  // takes the place of another, and leaves it empty
    sd::LintedPolicies found = sd::lintPolicyFile(text, sd::PolicyForm::Machine);
    for (const sd::PolicyFault& one : found.faults)
        mResult.findings.push_back({true, file.path, one.place(), one.line, one.uri, one.what, one.remedy});
    mResult.policies += found.entries.size();
    const auto isOfThatName = [&](const File& other) { return &other > &file && other.name == file.name; };
    if (std::any_of(mFiles.begin(), mFiles.end(), isOfThatName)) return;  // one of a later folder counts instead
    for (const PolicyEntry& entry : found.entries) {
        for (const std::string& user : entry.users) mByUser[user].push_back({file.path, entry});
        compare(file.path, entry);
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

bool LintResult::isSound(bool warningsToo) const {
    return std::none_of(findings.begin(), findings.end(),
                        [&](const LintFinding& one) { return one.isFault || warningsToo; });
}

LintResult lintPolicyFiles(const std::vector<std::string>& paths) {
    Linter linter;
    linter.take(paths);
    return linter.finish();
}

}  // namespace cli
