// What both programs' main() does. One command line, in two programs: what a shell calls often is in the first, which
// starts fast, and what looks into the data folder in the second.
#pragma once

#include <vector>

#include "apps/sdconfig/request/request.h"

namespace cli {

class Service;

// A command that a program has.
struct Run {
    const char* command;  // as it is typed
    int (*run)(const Request&, Service&);
    bool (*takes)(const Request&) = nullptr;  // where it is there for some requests: whether for this one
};

// Reads the command line and runs the command. elsewhere: what becomes of a request for which the program has none, and
// of one whose command returns kElsewhere. Returns the exit code.
int runProgram(int argc, char** argv, const std::vector<Run>& runs, int (*elsewhere)(const Request&, char** argv));

}  // namespace cli
