// What the user asked for, as the command line gave it.
#pragma once

#include <string>

namespace cli {

struct Request {
    std::string command;  // as typed: "get", "secure set"

    std::string key;
    std::string value;
    bool valueGiven = false;
    std::string text;
    std::string signature;

    bool local = false;
    std::string productDir;

    bool json = false;
    bool verbose = false;
};

}  // namespace cli
