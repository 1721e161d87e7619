// The command table: all that can be typed, once. The parser and its helps are made of it; completions and manuals are
// compared with those helps.
#pragma once

#include <string>
#include <vector>

#include "apps/sdconfig/request/request.h"

namespace cli {

// A positional argument.
struct Argument {
    const char* name;
    const char* help;
    std::string Request::*into;
    bool Request::*given = nullptr;  // where it may be left out: whether it was there
    bool mayBeEmpty = false;
    std::vector<std::string> Request::*intoAll = nullptr;  // where several may stand
    std::string (*fault)(const std::string&) = nullptr;    // what is wrong with it, or ""
    // Where "-" stands for standard input: whether it does, as it doesn't behind --.
    bool Request::*fromInput = nullptr;
};

struct Flag {
    const char* name;
    const char* help;
    bool Request::*into;
    const char* needs = "";  // the flag without which it makes no sense; "": none
};

// An option with a value.
struct ValueOption {
    const char* name;
    const char* type;
    const char* help;
    const char* needs;  // the flag without which it makes no sense; "": none
    std::string Request::*into;
    std::string (*fault)(const std::string&) = nullptr;    // what is wrong with it, or ""
    bool Request::*given = nullptr;                        // where it may be left out: whether it was there
    std::vector<std::string> Request::*intoAll = nullptr;  // where it may be given several times
};

// Commands with a first word in common.
struct Group {
    const char* name;
    const char* help;
    const char* example;
};

struct Command {
    const char* group;  // "": none
    const char* name;
    const char* help;
    const char* example;  // as it is typed
    std::vector<Argument> arguments;
    std::vector<Flag> flags;
    std::vector<ValueOption> options;
    const char* notes = "";  // what its help says besides
};

const std::vector<Group>& groups();
const std::vector<Command>& commands();

std::string nameOf(const Command& command);  // as it is typed: "get", "secure set"

}  // namespace cli
