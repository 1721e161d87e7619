// What can be typed: the commands with their arguments and options, and what is said when something else was.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/sdconfig/request/request.h"

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

namespace cli {

struct Command;
struct Group;

class CommandLine {
public:
    CommandLine();
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    // Returns the exit code where nothing is left to run: after --help and --version, and after wrong use.
    std::optional<int> parse(int argc, char** argv);

    // After a parse() that returned nothing.
    const Request& request() const { return mRequest; }

private:
    // To make a parser takes much of the time of a call, and most calls name a command and are right: for them that of
    // the command is made. The whole one has the helps, and says what is wrong.
    void prepareFor(const Command& command);
    void prepareWhole(const Command* named);
    void prepare();
    void add(const Group& group);
    void add(const Command& command);
    void addHelp();
    bool isRightFor(const Command& command, std::vector<std::string> arguments);  // help is not
    int printHelp(const CLI::ParseError& help) const;                             // or the version
    int printHelpOf(const std::vector<std::string>& words) const;
    int wrongUse(const CLI::ParseError& error) const;

    std::unique_ptr<CLI::App> mApp;
    Request mRequest;
    std::vector<std::string> mHelpOn;
    const Command* mCommand = nullptr;  // null: help
};

}  // namespace cli
