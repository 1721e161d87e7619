// keys lint: all that is wrong with files of descriptions, each by itself and all together.
#include <algorithm>

#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/described/described_keys.h"
#include "apps/sdconfig/files/named_files.h"
#include "apps/sdconfig/files/whole_file.h"
#include "apps/sdconfig/reading/lint_output.h"
#include "apps/sdconfig/terminal/messages.h"
#include "descriptions/lint.h"

namespace cli {

namespace {

LintFinding findingOf(bool isFault, const std::string& file, const sd::DescriptionFault& fault) {
    return {isFault, file, fault.place(), fault.line, fault.key, fault.what, fault.remedy};
}

// Of one name, the last one counts.
bool isReplaced(const NamedFile& file, const std::vector<NamedFile>& all) {
    return std::any_of(&file + 1, all.data() + all.size(),
                       [&](const NamedFile& other) { return other.name == file.name; });
}

// Reads what the request names. What can't be read is a finding.
sd::Descriptions readNamed(const Request& request, std::vector<LintFinding>& findings) {
    const auto isMeant = [](const std::string& name) { return sd::isDescriptionFileName(name); };
    const NamedFiles named = namedFiles(request.keys, isMeant);
    for (const auto& [folder, why] : named.unreadable)
        findings.push_back({true, folder, "", 0, "", "the folder can't be read: " + why, "make it readable"});
    sd::Descriptions descriptions;
    for (const NamedFile& file : named.files) {
        std::string text;
        const std::string problem =
            file.problem.empty() ? readWhole(file.path, sd::kDescriptionFileBytesMax, text) : file.problem;
        if (!problem.empty())
            findings.push_back({true, file.path, "", 0, "", problem, "a file of descriptions is regular"});
        else if (!text.empty() && !isReplaced(file, named.files))
            descriptions.add(file.path, std::move(text));
    }
    return descriptions;
}

}  // namespace

int lintKeys(const Request& request, Service& /*service*/) {
    LintResult result;
    const sd::Descriptions descriptions =
        request.keysGiven ? readNamed(request, result.findings) : describedKeys(request);
    for (const auto& [file, fault] : descriptions.leftOut()) result.findings.push_back(findingOf(true, file, fault));
    const auto files = descriptions.readFiles();
    for (const auto& [isFault, file, fault] : sd::lintDescriptions(files))
        result.findings.push_back(findingOf(isFault, file, fault));
    result.files = files.size() + descriptions.leftOut().size();
    for (const auto& file : files) result.entries += file.content.descriptions.size();
    return printLint(request, result, "keys");
}

}  // namespace cli
