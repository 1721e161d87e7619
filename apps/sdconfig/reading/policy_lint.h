// What is wrong with files of the machine's policies, before they are where a service reads them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace cli {

struct LintFinding {
    bool isFault;  // a service would leave the file out; else it would take it, and it may not be what was meant
    std::string file;
    std::string place;  // in it: "line 3, "uri"", or ""
    int line;           // 0: none
    std::string uri;    // "": none
    std::string what;
    std::string next;  // what to do about it
};

struct LintResult {
    std::vector<LintFinding> findings;  // in the order in which a service takes the files
    std::size_t files = 0;
    std::size_t policies = 0;

    bool isSound(bool warningsToo) const;
};

// paths: of files, whatever their names, and of folders, whose files *.json are taken. They are weighed as if they all
// were the machine's: in the order of their names; of one name, the later one takes the place of the earlier.
// Works for everybody, and asks no service.
LintResult lintPolicyFiles(const std::vector<std::string>& paths);

}  // namespace cli
