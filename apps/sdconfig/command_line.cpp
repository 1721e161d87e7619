#include "apps/sdconfig/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <string>
#include <vector>

#include "apps/sdconfig/commands.h"
#include "apps/sdconfig/messages.h"

namespace cli {

// A positional argument.
struct Argument {
    const char* name;
    const char* help;
    std::string Request::*into;
    bool Request::*given = nullptr;  // where it may be left out: whether it was there
    bool mayBeEmpty = false;
};

struct Flag {
    const char* name;
    const char* help;
    bool Request::*into;
};

// An option with the path of a folder, which has to be there.
struct FolderOption {
    const char* name;
    const char* help;
    const char* needs;  // the flag without which it makes no sense
    std::string Request::*into;
};

// Commands with a first word in common.
struct Group {
    const char* name;
    const char* help;
};

struct Command {
    const char* group;  // "": none
    const char* name;
    const char* help;
    std::vector<Argument> arguments;
    std::vector<Flag> flags;
    std::vector<FolderOption> folders;
    int (*run)(const Request&, Service&);
    const char* notes = "";  // what its help says besides
};

namespace {

constexpr Argument kKey{"KEY", "The key, never empty", &Request::key};
constexpr Argument kName{"NAME", "The constant's name", &Request::key};
constexpr Argument kValue{"VALUE", "The value; \"\" for an empty one", &Request::value, nullptr, true};
constexpr Argument kSecret{"VALUE", "The value; left out, it is read from standard input", &Request::value,
                           &Request::valueGiven, true};
constexpr Argument kText{"TEXT", "The content", &Request::text, nullptr, true};
constexpr Argument kSignature{"SIGNATURE", "What \"sign\" printed for it", &Request::signature, nullptr, true};

constexpr Flag kLocal{"--local", "Read the build.prop files in this process, without the service", &Request::local};
constexpr FolderOption kProductDir{"--product-dir",
                                   "With --local: the product's data folder; DIR/../etc/build.prop is read", "--local",
                                   &Request::productDir};

constexpr Group kGroups[] = {{"secure", "Values that are sealed at rest: get, set, delete"}};

constexpr char kSetSecureNotes[] =
    "Without VALUE the value is read from standard input up to its end, less one final newline; at a terminal it is\n"
    "asked for and not shown. A VALUE on the command line is visible to every user of the machine in the list of\n"
    "processes and stays in the shell's history: prefer standard input. Bytes outside ASCII read back as two each.\n";

const std::vector<Command>& commands() {
    static const std::vector<Command> all{
        {"", "get", "Prints a property", {kKey}, {kLocal}, {kProductDir}, getProperty},
        {"", "set", "Sets a property, until the service stops", {kKey, kValue}, {}, {}, setProperty},
        {"", "delete", "Deletes a property", {kKey}, {}, {}, deleteProperty},
        {"secure", "get", "Prints a secure value", {kKey}, {}, {}, getSecure},
        {"secure", "set", "Stores a secure value", {kKey, kSecret}, {}, {}, setSecure, kSetSecureNotes},
        {"secure", "delete", "Deletes a secure value; one that isn't there is no error", {kKey}, {}, {}, deleteSecure},
        {"", "const", "Prints a constant of the service", {kName}, {}, {}, getConst},
        {"", "sign", "Prints the signature of a text", {kText}, {}, {}, signText},
        {"", "verify", "Tells whether a signature fits a text", {kText, kSignature}, {}, {}, verifyText},
        {"", "status", "Tells whether the service is there, and how fast it answers", {}, {}, {}, showStatus},
    };
    return all;
}

constexpr char kFooter[] =
    "--json and -v go with every command. Put -- before a key or a value that begins with a dash.\n"
    "Exit codes: 0 done, 1 unset or refused, 2 wrong use, 3 no service.";

std::string nameOf(const Command& command) {
    return command.group[0] ? std::string(command.group) + " " + command.name : command.name;
}

bool looksLikeOption(const std::string& argument) {
    return argument.size() > 1 && argument[0] == '-';
}

// The option's name alone: what follows it may be a secret.
std::string optionName(const std::string& argument) {
    return argument.compare(0, 2, "--") == 0 ? argument.substr(0, argument.find('=')) : argument.substr(0, 2);
}

}  // namespace

CommandLine::CommandLine()
    : mApp(std::make_unique<CLI::App>("Reads and writes the configuration of the desktop client.", "sdconfig")) {
    mApp->set_version_flag("--version", "sdconfig " SDCONFIG_VERSION, "Print the version");
    mApp->add_flag("--json", mRequest.json, "Print one JSON object on one line");
    mApp->add_flag("-v,--verbose", mRequest.verbose,
                   "Show the library's log on standard error (it can hold the values in question)");
    mApp->require_subcommand(1);
    mApp->fallthrough();  // so that --json and -v are good at any place
    mApp->footer(kFooter);
    for (const Group& group : kGroups) mApp->add_subcommand(group.name, group.help)->require_subcommand(1);
    for (const Command& command : commands()) add(command);
}

CommandLine::~CommandLine() = default;

void CommandLine::add(const Command& command) {
    CLI::App& parent = command.group[0] ? *mApp->get_subcommand(command.group) : *mApp;
    CLI::App* app = parent.add_subcommand(command.name, command.help);
    app->footer(std::string(command.notes) + kFooter);
    for (const Argument& argument : command.arguments) {
        CLI::Option* option = app->add_option(argument.name, mRequest.*argument.into, argument.help);
        option->required(argument.given == nullptr)->type_name("");
    }
    for (const Flag& flag : command.flags) app->add_flag(flag.name, mRequest.*flag.into, flag.help);
    for (const FolderOption& folder : command.folders)
        app->add_option(folder.name, mRequest.*folder.into, folder.help)
            ->type_name("DIR")
            ->check(CLI::Validator(CLI::ExistingDirectory).description(""))
            ->needs(app->get_option(folder.needs));
    app->callback([this, app, &command] {
        mCommand = &command;
        mRequest.command = nameOf(command);
        for (const Argument& argument : command.arguments)
            if (argument.given) mRequest.*argument.given = app->count(argument.name) > 0;
    });
}

std::optional<int> CommandLine::parse(int argc, char** argv) {
    try {
        mApp->parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return error.get_exit_code() == 0 ? mApp->exit(error) : wrongUse(error);
    }
    for (const Argument& argument : mCommand->arguments)
        if (!argument.mayBeEmpty && (mRequest.*argument.into).empty()) return emptyName(mRequest, argument.name);
    return std::nullopt;
}

int CommandLine::run(Service& service) const {
    return mCommand->run(mRequest, service);
}

int CommandLine::wrongUse(const CLI::ParseError& error) const {
    const CLI::App* deepest = mApp.get();
    std::string command;
    while (!deepest->get_subcommands().empty()) {
        deepest = deepest->get_subcommands().front();
        command += (command.empty() ? "" : " ") + deepest->get_name();
    }
    std::vector<std::string> extras = mApp->remaining(true);
    extras.erase(std::remove(extras.begin(), extras.end(), "--"), extras.end());
    const auto option = std::find_if(extras.begin(), extras.end(), looksLikeOption);
    if (option != extras.end()) return unknownOption(command, optionName(*option));
    const bool commandExpected = !deepest->get_subcommands([](const CLI::App*) { return true; }).empty();
    if (extras.empty()) return misused(command, commandExpected ? "a command is missing" : error.what());
    return commandExpected ? unknownCommand(command, extras.front()) : tooManyArguments(command);
}

}  // namespace cli
