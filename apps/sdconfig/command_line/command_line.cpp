#include "apps/sdconfig/command_line/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "apps/common/usage.h"
#include "apps/sdconfig/command_line/command_table.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "base/nearest.h"

namespace cli {

namespace {

constexpr char kFooter[] =
    "--json, -v and --user go with every command. Put -- before a key or a value that begins with a dash.\n"
    "Exit codes: 0 done, 1 unset or refused, 2 wrong use, 3 no service.";

// What a help ends with.
std::string footer(const char* notes, const char* example) {
    return std::string(notes) + kFooter + "\nExample: " + example;
}

bool looksLikeOption(const std::string& argument) {
    return argument.size() > 1 && argument[0] == '-';
}

bool holdsEmpty(const Request& request, const Argument& argument) {
    if (argument.given && !(request.*argument.given)) return false;
    if (!argument.intoAll) return (request.*argument.into).empty();
    const std::vector<std::string>& all = request.*argument.intoAll;
    return std::any_of(all.begin(), all.end(), [](const std::string& one) { return one.empty(); });
}

// The parser takes "[a,b]" and "{}" for lists. A zero byte, which no argument holds, keeps it from that, and marks a
// "-" behind "--" as nothing but a dash.
std::vector<std::string> protectedArguments(int argc, char** argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    bool isVerbatim = false;
    for (std::string& argument : arguments) {
        if ((!argument.empty() && std::strchr("[{", argument.front())) || (isVerbatim && argument == "-"))
            argument += '\0';
        isVerbatim = isVerbatim || argument == "--";
    }
    return arguments;
}

std::string unprotected(const std::string& argument) {
    return argument.substr(0, argument.find('\0'));
}

// The first two words, which name a command, or begin with one.
std::vector<std::string> commandWords(const std::vector<std::string>& arguments) {
    std::vector<std::string> words;
    for (auto at = arguments.begin(); at != arguments.end() && words.size() < 2; ++at) {
        if (at->empty() || at->front() != '-')
            words.push_back(*at);
        else if (*at == "--user" && at + 1 != arguments.end())
            ++at;
    }
    return words;
}

const Command* commandOf(const std::string& group, const std::string& name) {
    const auto found = std::find_if(commands().begin(), commands().end(),
                                    [&](const Command& one) { return one.group == group && one.name == name; });
    return found == commands().end() ? nullptr : &*found;
}

// Null where no command is named. A name of two words comes before one of the first alone.
const Command* namedCommand(const std::vector<std::string>& arguments) {
    const std::vector<std::string> words = commandWords(arguments);
    const Command* const longer = words.size() > 1 ? commandOf(words[0], words[1]) : nullptr;
    return longer || words.empty() ? longer : commandOf("", words[0]);
}

// Behind "--" of "secure exec" stands another program, with options of its own.
std::vector<std::string> takeProgram(std::vector<std::string>& arguments) {
    const auto mark = std::find(arguments.begin(), arguments.end(), "--");
    if (mark == arguments.end() || commandWords(arguments) != std::vector<std::string>{"secure", "exec"}) return {};
    std::vector<std::string> program;
    std::transform(mark + 1, arguments.end(), std::back_inserter(program), unprotected);
    arguments.erase(mark, arguments.end());
    return program;
}

// The command that somebody may have meant by `word`: one with a name like it, else another group's of that very name.
std::string meantCommand(const CLI::App& group, const std::string& groupName, const std::string& word) {
    std::vector<std::string> names;
    for (const CLI::App* one : group.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(one->get_name());
    const std::string near = sd::nearest(word, {names.begin(), names.end()});
    if (!near.empty()) return groupName.empty() ? near : groupName + " " + near;
    const auto same =
        std::find_if(commands().begin(), commands().end(), [&](const Command& one) { return one.name == word; });
    return same == commands().end() ? "" : nameOf(*same);
}

// A command with which longer names begin, where one of those was typed: its own arguments and options are none of
// theirs.
Group asGroup(const Command& command) {
    return {command.name, command.help, command.example};
}

// The option's name alone: what follows it may be a secret.
std::string optionName(const std::string& argument) {
    return argument.compare(0, 2, "--") == 0 ? argument.substr(0, argument.find('=')) : argument.substr(0, 2);
}

}  // namespace

CommandLine::CommandLine() = default;
CommandLine::~CommandLine() = default;

void CommandLine::prepare() {
    mRequest = Request();
    mCommand = nullptr;
    mApp = std::make_unique<CLI::App>("Reads and writes the configuration of the desktop client.", "sdconfig");
    mApp->option_defaults()->disable_flag_override();
    mApp->set_version_flag("--version", "sdconfig " SDCONFIG_VERSION, "Print the version");
    mApp->add_flag("--json", mRequest.json, "Print one JSON object on one line");
    mApp->add_flag("-v,--verbose", mRequest.verbose,
                   "Show the library's log on standard error, values by their length and digest");
    mApp->add_option("--user", mRequest.user, "Act as this user, whose service root may use")
        ->type_name("NAME")
        ->check(apps::notEmpty);
    mApp->require_subcommand(1);
    mApp->fallthrough();  // so that these are good at any place
    mApp->footer(footer("", "sdconfig set sd.ui.theme dark"));
}

void CommandLine::prepareFor(const Command& command) {
    prepare();
    for (const Group& group : groups())
        if (command.group == std::string(group.name)) add(group);
    if (const Command* const first = commandOf("", command.group)) add(asGroup(*first));
    add(command);
}

void CommandLine::prepareWhole(const Command* named) {
    prepare();
    for (const Group& group : groups()) add(group);
    for (const Command& command : commands())
        named&& command.name == std::string(named->group) ? add(asGroup(command)) : add(command);
    addHelp();
}

void CommandLine::add(const Group& group) {
    mApp->add_subcommand(group.name, group.help)->require_subcommand(1)->footer(footer("", group.example));
}

void CommandLine::addHelp() {
    CLI::App* app = mApp->add_subcommand("help", "Prints the help of a command");
    app->footer(footer("", "sdconfig help policy set"));
    app->add_option("COMMAND", mHelpOn, "The command")->type_name("");
}

void CommandLine::add(const Command& command) {
    CLI::App& parent = command.group[0] ? *mApp->get_subcommand(command.group) : *mApp;
    CLI::App* app = parent.add_subcommand(command.name, command.help);
    app->footer(footer(command.notes, command.example));
    for (const Argument& argument : command.arguments) {
        CLI::Option* option = argument.intoAll
                                  ? app->add_option(argument.name, mRequest.*argument.intoAll, argument.help)
                                  : app->add_option(argument.name, mRequest.*argument.into, argument.help);
        const auto fromInput = argument.fromInput;
        option->required(argument.given == nullptr)
            ->type_name("")
            ->transform([this, fromInput](const std::string& text) {
                if (fromInput) mRequest.*fromInput = text == "-";
                return unprotected(text);
            });
        if (argument.fault) option->check(argument.fault);
    }
    for (const Flag& flag : command.flags) {
        CLI::Option* option = app->add_flag(flag.name, mRequest.*flag.into, flag.help);
        if (flag.needs[0]) option->needs(app->get_option(flag.needs));
    }
    for (const ValueOption& value : command.options) {
        CLI::Option* option = value.intoAll ? app->add_option(value.name, mRequest.*value.intoAll, value.help)
                                            : app->add_option(value.name, mRequest.*value.into, value.help);
        if (value.intoAll) option->expected(1)->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
        option->type_name(value.type)->transform(unprotected);
        if (value.fault) option->check(value.fault);
        if (value.needs[0]) option->needs(app->get_option(value.needs));
    }
    app->callback([this, app, &command] {
        if (!app->get_subcommands().empty()) return;  // a longer name was typed
        mCommand = &command;
        mRequest.command = nameOf(command);
        for (const Argument& argument : command.arguments)
            if (argument.given) mRequest.*argument.given = app->count(argument.name) > 0;
        for (const ValueOption& value : command.options)
            if (value.given) mRequest.*value.given = app->count(value.name) > 0;
    });
}

std::optional<int> CommandLine::parse(int argc, char** argv) {
    std::vector<std::string> arguments = protectedArguments(argc, argv);
    std::vector<std::string> program = takeProgram(arguments);
    const Command* const named = namedCommand(arguments);
    std::reverse(arguments.begin(), arguments.end());  // as the parser wants them
    if (!named || !isRightFor(*named, arguments)) {
        prepareWhole(named);
        try {
            mApp->parse(std::move(arguments));
        } catch (const CLI::ParseError& error) {
            return error.get_exit_code() == 0 ? printHelp(error) : wrongUse(error);
        }
    }
    if (!mCommand) return printHelpOf(mHelpOn);
    mRequest.program = std::move(program);
    for (const Argument& argument : mCommand->arguments)
        if (!argument.mayBeEmpty && holdsEmpty(mRequest, argument)) return emptyName(mRequest, argument.name);
    return std::nullopt;
}

bool CommandLine::isRightFor(const Command& command, std::vector<std::string> arguments) {
    prepareFor(command);
    try {
        mApp->parse(std::move(arguments));
    } catch (const CLI::ParseError&) {
        return false;
    }
    return true;
}

int CommandLine::printHelp(const CLI::ParseError& help) const {
    std::ostringstream text;
    mApp->exit(help, text, text);
    return printText(text.str());
}

int CommandLine::printHelpOf(const std::vector<std::string>& words) const {
    const CLI::App* app = mApp.get();
    std::string command;
    for (const std::string& word : words) {
        if (app->get_subcommands([](const CLI::App*) { return true; }).empty()) return tooManyArguments(command);
        const auto named = app->get_subcommands([&word](const CLI::App* one) { return one->get_name() == word; });
        if (named.empty()) return unknownCommand(command, word, meantCommand(*app, command, word));
        app = named.front();
        command += (command.empty() ? "" : " ") + word;
    }
    const std::string name = mApp->get_name() + (command.empty() ? "" : " " + command);
    return printText(app->get_formatter()->make_help(app, name, CLI::AppFormatMode::Normal));
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
    std::transform(extras.begin(), extras.end(), extras.begin(), unprotected);
    const auto option = std::find_if(extras.begin(), extras.end(), looksLikeOption);
    if (option != extras.end()) return unknownOption(command, optionName(*option));
    const bool commandExpected = !deepest->get_subcommands([](const CLI::App*) { return true; }).empty();
    if (extras.empty()) {
        const bool missing = commandExpected && error.get_name() == "RequiredError";
        return misused(command, missing ? "a command is missing" : apps::usageProblem(error));
    }
    if (!commandExpected) return tooManyArguments(command);
    return unknownCommand(command, extras.front(), meantCommand(*deepest, command, extras.front()));
}

}  // namespace cli
