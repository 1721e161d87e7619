#include "apps/sdconfig/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "apps/common/usage.h"
#include "apps/sdconfig/commands.h"
#include "apps/sdconfig/messages.h"
#include "apps/sdconfig/output.h"
#include "apps/sdconfig/suggestion.h"
#include "src/sdconfig_helpers.h"

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

// An option with a value. One of the type "DIR" is the path of a folder, which has to be there.
struct ValueOption {
    const char* name;
    const char* type;
    const char* help;
    const char* needs;  // the flag without which it makes no sense; "": none
    std::string Request::*into;
    bool Request::*given = nullptr;  // where it may be empty: whether it was there
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
    int (*run)(const Request&, Service&);
    const char* notes = "";  // what its help says besides
};

namespace {

using FileType = std::filesystem::file_type;

// What is not there, or is something else.
std::string notOfType(FileType wanted, const std::string& path) {
    if (path.empty()) return apps::notEmpty(path);
    std::error_code failure;
    const FileType found = std::filesystem::status(path, failure).type();
    const bool isFolder = wanted == FileType::directory;
    if (found == wanted) return "";
    if (found == FileType::not_found) return (isFolder ? "there is no folder " : "there is no file ") + quoted(path);
    if (found == FileType::none) return quoted(path) + ": " + failure.message();
    return quoted(path) + (isFolder ? " is no folder" : " is no regular file");
}

std::string notAFolder(const std::string& path) {
    return notOfType(FileType::directory, path);
}

std::string notAFile(const std::string& path) {
    return notOfType(FileType::regular, path);
}

std::string tooLong(const std::string& key) {
    return key.size() > sd::kKeyBytesMax ? "it is longer than 64 KiB, and nothing of such a name is kept" : "";
}

constexpr Argument checked(Argument argument, std::string (*fault)(const std::string&)) {
    argument.fault = fault;
    return argument;
}

constexpr Argument kKey = checked({"KEY", "The key, never empty", &Request::key}, tooLong);
constexpr Argument kName{"NAME", "The constant's name", &Request::key};
constexpr Argument kValue{"VALUE", "The value; \"\" for an empty one", &Request::value, nullptr, true};
constexpr Argument kSecret{"VALUE",
                           "The value; left out, or -, it is read from standard input",
                           &Request::value,
                           &Request::valueGiven,
                           true,
                           nullptr,
                           nullptr,
                           &Request::valueFromInput};
constexpr Argument kText{"TEXT", "The content", &Request::text, nullptr, true};
constexpr Argument kSignature{"SIGNATURE", "What \"sign\" printed for it", &Request::signature, nullptr, true};

constexpr Flag kLocal{"--local", "Read the build.prop files in this process, without the service", &Request::local};
constexpr Flag kShow{"--show", "Show values, which can be secrets", &Request::show};
constexpr Flag kShowChanges{"--show", "With --dry-run: show values, which can be secrets", &Request::show, "--dry-run"};
constexpr Flag kYes{"--yes", "Don't ask", &Request::yes};
constexpr Flag kPrune{"--prune", "Delete the policies that FILE doesn't name; asks first", &Request::prune};
constexpr Flag kYesPrune{"--yes", "With --prune: don't ask", &Request::yes, "--prune"};
constexpr Flag kDryRun{"--dry-run", "Send nothing; print what would change, and why", &Request::dryRun};
constexpr ValueOption kProductDir{"--product-dir", "DIR",
                                  "With --local: the product's data folder; DIR/../etc/build.prop is read", "--local",
                                  &Request::productDir};
constexpr ValueOption kProductFiles{
    "--product-dir", "DIR",
    "The product's data folder, whose ../etc/build.prop is read; left out, it is the one "
    "that the running service was told",
    "", &Request::productDir};
constexpr char kWhichFolder[] =
    "The service's data folder; left out, it is where the running service has its data, else the one that sdconfigd "
    "takes";
constexpr ValueOption kDataDir{"--data-dir", "DIR", kWhichFolder, "", &Request::dataDir};
constexpr ValueOption kExecute{"--exec", "CMD",
                               "Run \"sh -c CMD\" for each change, with SDCONFIG_KEY and SDCONFIG_VALUE set", "",
                               &Request::execute};

constexpr Argument kUri =
    checked({"URI", "The configuration key that the policy governs, never empty", &Request::key}, tooLong);
constexpr Argument kPriority{"PRIORITY", "0 to 127; above 5 it overrides the local secure value", &Request::priority};
constexpr Argument kWrittenFile{"FILE", "Takes the policies in the place of what it held; - is standard output",
                                &Request::file};
constexpr Argument kReadFile{"FILE", "A file of policies; - is standard input", &Request::file};
constexpr Argument kKeys = checked({"KEY", "The keys, 122 at most; \"a.b.*\" is all that begin with \"a.b.\"", nullptr,
                                    nullptr, false, &Request::keys},
                                   tooLong);
constexpr Argument kSomeKeys = checked({"KEY", "The keys", nullptr, nullptr, false, &Request::keys}, tooLong);
constexpr Argument kProperties =
    checked({"KEY", "The keys; \"a.b.*\" is all that begin with \"a.b.\"; left out, all that can be listed", nullptr,
             &Request::keysGiven, false, &Request::keys},
            tooLong);
constexpr Argument kListed = checked({"KEY", "Of these alone; \"a.b.*\" is all that begin with \"a.b.\"", nullptr,
                                      &Request::keysGiven, false, &Request::keys},
                                     tooLong);
constexpr Argument kPairs = checked(
    {"KEY=VARIABLE", "A key, and the variable that gets its value", nullptr, nullptr, false, &Request::pairs}, tooLong);
constexpr ValueOption kDefault{
    "--default", "VALUE", "Print it instead of what is unset", "", &Request::fallback, &Request::fallbackGiven};
constexpr Argument kDataOf = checked({"DATA-DIR", kWhichFolder, &Request::key, &Request::keyGiven}, notAFolder);
constexpr Argument kBackup{"FILE", "The backup", &Request::file};
constexpr Argument kMadeBackup = checked(kBackup, notAFile);
constexpr Argument kRestored{"DATA-DIR", "The folder that the data is put into", &Request::key};
constexpr Argument kDataFolder =
    checked({"DATA-DIR", "The folder of the database and the key ring", &Request::key}, notAFolder);
constexpr Flag kReport{"--dry-run", "Change nothing; print what the database holds and what would be copied",
                       &Request::dryRun};
constexpr Flag kForce{"--force", "Copy, whatever version the database says it has", &Request::force};

constexpr Flag kOverwrite{"--force", "Put it in the place of a file that is there", &Request::force};
constexpr Flag kReplace{"--force", "Put it in the place of what is there, which is kept beside it", &Request::force};
constexpr Flag kLeaveOutKeys{"--without-keys", "Leave the key ring out", &Request::withoutKeys};
constexpr Flag kIgnoreKeys{"--without-keys", "Leave the backup's key ring out, and restore what no key ring opens, too",
                           &Request::withoutKeys};

constexpr Group kGroups[] = {
    {"secure", "Values that are sealed at rest: get, set, delete, exec", "sdconfig secure get mail.password"},
    {"policy", "Policies: set, get, delete, list, strong, clear, export, apply", "sdconfig policy list"},
};

constexpr char kSetSecureNotes[] =
    "Without VALUE, or where it is \"-\", the value is read from standard input up to its end, less one final "
    "newline;\n"
    "at a terminal it is asked for and not shown. A VALUE on the command line is visible to every user of the machine\n"
    "in the list of processes and stays in the shell's history: prefer standard input. The value \"-\" itself is "
    "given\n"
    "as -- -.\n";

constexpr char kExecNotes[] =
    "Runs the program behind -- with the secure values in its environment, where its user's processes and root can\n"
    "read them, and in no list of processes. Where a value is missing nothing is run, with exit code 1; else the exit\n"
    "code is the program's, 126 where it can't be run, or 127 where there is none.\n";

constexpr char kGetNotes[] =
    "One key's value, else a line KEY=VALUE each. What is missing is told on standard error, with exit code 1. Listed\n"
    "are the keys of the build.prop files, with the values that the service has now; not those that were set at run\n"
    "time.\n";

constexpr char kGetSecureNotes[] =
    "One key's value, else a line KEY=VALUE each. What is missing is told on standard error, with exit code 1.\n";

constexpr char kSetPolicyNotes[] =
    "A value can't contain \"&&&\", end with \"&\", or be \"null_value\": the store would not give it back.\n";

constexpr char kApplyNotes[] =
    "FILE holds {\"URI\": {\"value\": \"text\", \"priority\": 7}, ...}. It is checked whole before anything is sent.\n"
    "With --prune it is the whole truth: once all of it is stored, policies that it doesn't name are deleted.\n";

constexpr char kWatchNotes[] =
    "A line a change, KEY and value, until it is interrupted. It goes on through restarts of the service. Values are\n"
    "printed, secrets too. One CMD runs at a time, in the order of the changes, with an empty standard input.\n";

constexpr char kUpgradeNotes[] =
    "Settings and secure values of version 2 are copied to sealed values; those of the same key are replaced. A copy "
    "of\n"
    "the database is kept beside it first.\n";

constexpr char kCheckNotes[] =
    "A line a finding, with what to do about it. Nothing is created or changed, and the service may run. Exit code 1\n"
    "where there are findings.\n";

constexpr char kDoctorNotes[] =
    "A line each for folders, socket, service, versions, environment, units and data: \"ok\" or \"problem\". Nothing "
    "is\n"
    "changed; where systemd listens in the service's place, the service is started. Exit code 1 where there are "
    "problems.\n";

constexpr char kBackupNotes[] =
    "FILE gets both databases, each as it stood at one moment, and the key ring, sealed under a passphrase: the first\n"
    "line of standard input; at a terminal it is asked for twice and not shown. The service may run.\n";

constexpr char kRestoreNotes[] =
    "The backup is checked whole before it takes the place of DATA-DIR. The passphrase is the first line of standard\n"
    "input; at a terminal it is asked for and not shown. No service may run on DATA-DIR.\n";

const std::vector<Command>& commands() {
    static const std::vector<Command> all{
        {"",
         "get",
         "Prints properties",
         "sdconfig get sd.ui.theme",
         {kProperties},
         {kLocal},
         {kProductDir, kDefault},
         getProperty,
         kGetNotes},
        {"",
         "set",
         "Sets a property, until the service stops",
         "sdconfig set sd.ui.theme dark",
         {kKey, kValue},
         {},
         {},
         setProperty},
        {"", "delete", "Deletes a property", "sdconfig delete sd.ui.theme", {kKey}, {}, {}, deleteProperty},
        {"secure",
         "get",
         "Prints secure values",
         "sdconfig secure get mail.password",
         {kSomeKeys},
         {},
         {kDefault},
         getSecure,
         kGetSecureNotes},
        {"secure",
         "set",
         "Stores a secure value",
         "pass show mail | sdconfig secure set mail.password",
         {kKey, kSecret},
         {},
         {},
         setSecure,
         kSetSecureNotes},
        {"secure",
         "delete",
         "Deletes a secure value; one that isn't there is no error",
         "sdconfig secure delete mail.password",
         {kKey},
         {},
         {},
         deleteSecure},
        {"secure",
         "exec",
         "Runs a program with secure values in its environment",
         "sdconfig secure exec mail.password=PASSWORD -- fetchmail",
         {kPairs},
         {},
         {},
         executeWithSecrets,
         kExecNotes},
        {"policy",
         "set",
         "Sets a policy",
         "sdconfig policy set wlan.enabled off 6",
         {kUri, kValue, kPriority},
         {},
         {},
         setPolicy,
         kSetPolicyNotes},
        {"policy",
         "get",
         "Prints the value in force: the policy's or the local one",
         "sdconfig policy get wlan.enabled",
         {kUri},
         {},
         {},
         getPolicy},
        {"policy",
         "delete",
         "Deletes a policy; one that isn't there is no error",
         "sdconfig policy delete wlan.enabled",
         {kUri},
         {},
         {},
         deletePolicy},
        {"policy",
         "list",
         "Prints the stored policies: URI, priority, value, and whether it is in force",
         "sdconfig policy list --json",
         {},
         {},
         {kDataDir},
         listPolicies},
        {"policy",
         "strong",
         "Tells whether a policy overrides the local value",
         "sdconfig policy strong wlan.enabled",
         {kUri},
         {},
         {},
         showStrong},
        {"policy", "clear", "Deletes all policies", "sdconfig policy clear --yes", {}, {kYes}, {}, clearPolicies},
        {"policy",
         "export",
         "Writes the stored policies to a file",
         "sdconfig policy export fleet.json",
         {kWrittenFile},
         {},
         {kDataDir},
         exportPolicies},
        {"policy",
         "apply",
         "Sets the policies of a file",
         "sdconfig policy apply fleet.json --dry-run",
         {kReadFile},
         {kDryRun, kShowChanges, kPrune, kYesPrune},
         {kDataDir},
         applyPolicies,
         kApplyNotes},
        {"",
         "explain",
         "Tells where a key's value comes from",
         "sdconfig explain wlan.enabled --show",
         {kKey},
         {kShow},
         {kDataDir, kProductFiles},
         explainKey},
        {"",
         "watch",
         "Prints changes of keys as they happen",
         "sdconfig watch sd.ui.theme --exec 'notify-send \"$SDCONFIG_VALUE\"'",
         {kKeys},
         {},
         {kExecute},
         watchKeys,
         kWatchNotes},
        {"",
         "list",
         "Prints the keys of the secure values and of the policies",
         "sdconfig list 'velmar.proxy.*'",
         {kListed},
         {kShow},
         {kDataDir},
         listKeys},
        {"",
         "upgrade",
         "Carries an earlier version's database over, while no service runs on it",
         "sdconfig upgrade ~/.local/share/sdconfig --dry-run",
         {kDataFolder},
         {kReport, kForce},
         {},
         upgradeDatabase,
         kUpgradeNotes},
        {"",
         "doctor",
         "Tells what is wrong with the service, and what to type next",
         "sdconfig doctor",
         {},
         {},
         {kDataDir},
         diagnoseService,
         kDoctorNotes},
        {"",
         "check",
         "Looks for faults in the data folder",
         "sdconfig check ~/.local/share/sdconfig",
         {kDataOf},
         {},
         {},
         checkFolder,
         kCheckNotes},
        {"",
         "backup",
         "Writes the data folder to a file",
         "pass show sdconfig-backup | sdconfig backup /backups/sdconfig.monday",
         {kBackup, kDataOf},
         {kOverwrite, kLeaveOutKeys},
         {},
         backupData,
         kBackupNotes},
        {"",
         "restore",
         "Puts a backup in the place of a data folder",
         "sdconfig restore /backups/sdconfig.monday ~/.local/share/sdconfig --force",
         {kMadeBackup, kRestored},
         {kReplace, kIgnoreKeys},
         {},
         restoreData,
         kRestoreNotes},
        {"", "const", "Prints a constant of the service", "sdconfig const region", {kName}, {}, {}, getConst},
        {"",
         "sign",
         "Prints the signature of a text, which in this version is the text itself",
         "sdconfig sign \"some text\"",
         {kText},
         {},
         {},
         signText},
        {"",
         "verify",
         "Tells whether a signature fits a text, as in this version each does",
         "sdconfig verify \"some text\" \"$signature\"",
         {kText, kSignature},
         {},
         {},
         verifyText},
        {"",
         "status",
         "Tells whether the service is there, and how fast it answers",
         "sdconfig status --json",
         {},
         {},
         {},
         showStatus},
    };
    return all;
}

constexpr char kFooter[] =
    "--json, -v and --user go with every command. Put -- before a key or a value that begins with a dash.\n"
    "Exit codes: 0 done, 1 unset or refused, 2 wrong use, 3 no service.";

// What a help ends with.
std::string footer(const char* notes, const char* example) {
    return std::string(notes) + kFooter + "\nExample: " + example;
}

std::string nameOf(const Command& command) {
    return command.group[0] ? std::string(command.group) + " " + command.name : command.name;
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

bool isExecute(const std::vector<std::string>& arguments) {
    std::vector<std::string> words;
    for (auto at = arguments.begin(); at != arguments.end() && words.size() < 2; ++at) {
        if (at->empty() || at->front() != '-')
            words.push_back(*at);
        else if (*at == "--user" && at + 1 != arguments.end())
            ++at;
    }
    return words == std::vector<std::string>{"secure", "exec"};
}

// Behind "--" of "secure exec" stands another program, with options of its own.
std::vector<std::string> takeProgram(std::vector<std::string>& arguments) {
    const auto mark = std::find(arguments.begin(), arguments.end(), "--");
    if (mark == arguments.end() || !isExecute(arguments)) return {};
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
    const std::string near = nearest(word, names);
    if (!near.empty()) return groupName.empty() ? near : groupName + " " + near;
    const auto same =
        std::find_if(commands().begin(), commands().end(), [&](const Command& one) { return one.name == word; });
    return same == commands().end() ? "" : nameOf(*same);
}

// The option's name alone: what follows it may be a secret.
std::string optionName(const std::string& argument) {
    return argument.compare(0, 2, "--") == 0 ? argument.substr(0, argument.find('=')) : argument.substr(0, 2);
}

}  // namespace

CommandLine::CommandLine()
    : mApp(std::make_unique<CLI::App>("Reads and writes the configuration of the desktop client.", "sdconfig")) {
    mApp->option_defaults()->disable_flag_override();
    mApp->set_version_flag("--version", "sdconfig " SDCONFIG_VERSION, "Print the version");
    mApp->add_flag("--json", mRequest.json, "Print one JSON object on one line");
    mApp->add_flag("-v,--verbose", mRequest.verbose,
                   "Show the library's log on standard error (it can hold the values in question)");
    mApp->add_option("--user", mRequest.user, "Act as this user, whose service root may use")
        ->type_name("NAME")
        ->check(apps::notEmpty);
    mApp->require_subcommand(1);
    mApp->fallthrough();  // so that these are good at any place
    mApp->footer(footer("", "sdconfig set sd.ui.theme dark"));
    for (const Group& group : kGroups)
        mApp->add_subcommand(group.name, group.help)->require_subcommand(1)->footer(footer("", group.example));
    for (const Command& command : commands()) add(command);
    addHelp();
}

void CommandLine::addHelp() {
    CLI::App* app = mApp->add_subcommand("help", "Prints the help of a command");
    app->footer(footer("", "sdconfig help policy set"));
    app->add_option("COMMAND", mHelpOn, "The command")->type_name("");
}

CommandLine::~CommandLine() = default;

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
        CLI::Option* option = app->add_option(value.name, mRequest.*value.into, value.help)->type_name(value.type);
        option->transform(unprotected);
        if (!value.given) option->check(std::string(value.type) == "DIR" ? notAFolder : apps::notEmpty);
        if (value.needs[0]) option->needs(app->get_option(value.needs));
    }
    app->callback([this, app, &command] {
        mCommand = &command;
        mRequest.command = nameOf(command);
        for (const Argument& argument : command.arguments)
            if (argument.given) mRequest.*argument.given = app->count(argument.name) > 0;
        for (const ValueOption& value : command.options)
            if (value.given) mRequest.*value.given = app->count(value.name) > 0;
    });
}

std::optional<int> CommandLine::parse(int argc, char** argv) {
    try {
        std::vector<std::string> arguments = protectedArguments(argc, argv);
        mRequest.program = takeProgram(arguments);
        std::reverse(arguments.begin(), arguments.end());  // as the parser wants them
        mApp->parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        return error.get_exit_code() == 0 ? printHelp(error) : wrongUse(error);
    }
    if (!mCommand) return printHelpOf(mHelpOn);
    for (const Argument& argument : mCommand->arguments)
        if (!argument.mayBeEmpty && holdsEmpty(mRequest, argument)) return emptyName(mRequest, argument.name);
    return std::nullopt;
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
