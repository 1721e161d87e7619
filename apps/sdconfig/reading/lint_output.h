// What a look at files found.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "apps/sdconfig/request/request.h"

namespace cli {

struct LintFinding {
    bool isFault;  // it has to be mended; else it is taken, and may not be what was meant
    std::string file;
    std::string place;  // in it: "line 3, "uri"", or ""
    int line;           // 0: none
    std::string uri;    // or key; "": none
    std::string what;
    std::string next;  // what to do about it
};

struct LintResult {
    std::vector<LintFinding> findings;
    std::size_t files = 0;
    std::size_t entries = 0;

    bool isSound(bool warningsToo) const;
};

// A line a finding, or a count. entries: what there is in the files: "policies". Returns the exit code.
int printLint(const Request& request, const LintResult& result, const char* entries);

}  // namespace cli
