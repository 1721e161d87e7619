// What the user asked for, as the command line gave it.
#pragma once

#include <string>
#include <vector>

namespace cli {

struct Request {
    std::string command;  // as typed: "get", "secure set"

    std::string key;  // or a policy's URI, or a data folder
    std::vector<std::string> keys;
    std::string value;
    std::string fallback;              // instead of what is unset
    std::vector<std::string> pairs;    // KEY=VARIABLE
    std::vector<std::string> program;  // with its arguments
    bool keyGiven = false;
    bool keysGiven = false;
    bool valueGiven = false;
    bool valueFromInput = false;  // the value was given as "-"
    bool fallbackGiven = false;
    std::string text;
    std::string signature;
    std::string priority;
    std::string file;     // "-": standard input or output
    std::string execute;  // "": nothing
    std::string user;     // whom root acts for; "": for itself

    bool local = false;
    std::string productDir;
    std::string dataDir;
    bool show = false;
    bool yes = false;
    bool dryRun = false;
    bool prune = false;
    bool force = false;
    bool withoutKeys = false;
    bool digest = false;
    std::string against;  // a digest; "": none
    bool reseal = false;
    bool strict = false;
    bool machine = false;                  // the machine's policies, too
    std::string name;                      // of a file of policies
    std::vector<std::string> policyDirs;   // instead of the machine's
    std::vector<std::string> policyFiles;  // as if they were the machine's, too
    std::string backup;                    // a file; "": none
    bool fileGiven = false;
    std::string since;  // a point in time, as typed; "": none
    std::string by;     // a program, a unit or a uid; "": any
    std::string head;   // of a trail; "": none
    bool follow = false;
    bool reverse = false;
    std::vector<std::string> keysDirs;  // of descriptions, besides those of the machine
    bool unchecked = false;             // whatever descriptions say
    bool described = false;             // what is described and unset, too
    bool names = false;                 // of the keys alone
    bool values = false;                // that are allowed, alone

    bool json = false;
    bool verbose = false;
};

}  // namespace cli
