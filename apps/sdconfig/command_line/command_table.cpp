#include "apps/sdconfig/command_line/command_table.h"

#include <algorithm>
#include <filesystem>

#include "apps/common/digest_text.h"
#include "apps/common/time_text.h"
#include "apps/common/usage.h"
#include "apps/sdconfig/terminal/messages.h"
#include "base/limits.h"

namespace cli {

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

std::string notThere(const std::string& path) {
    std::error_code failure;
    if (path.empty()) return apps::notEmpty(path);
    return std::filesystem::exists(path, failure) ? "" : "there is no file " + quoted(path);
}

std::string tooLong(const std::string& key) {
    return key.size() > sd::kKeyBytesMax ? "it is longer than 64 KiB, and nothing of such a name is kept" : "";
}

std::string notADigest(const std::string& text) {
    return apps::isDigestText(text) ? "" : "it is no digest that \"check --digest\" printed";
}

std::string notATime(const std::string& text) {
    if (apps::typedTime(text, 0)) return "";
    return quoted(text) + " is no time: that is 90s, 15m, 2h, 2d or 3w, or 2030-01-31 or 2030-01-31T12:00";
}

// What no id of a key begins with.
std::string notAKeyId(const std::string& id) {
    constexpr std::size_t kLeast = 4;
    constexpr std::size_t kWhole = 16;
    const bool isHex = id.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    if (!isHex || id.size() < kLeast || id.size() > kWhole)
        return quoted(id) + " is no key's id: that has 16 digits, 0 to 9 and a to f, of which the first 4 will do";
    const bool isLower = id.find_first_of("ABCDEF") == std::string::npos;
    return isLower ? "" : quoted(id) + " has capital letters: the ids of keys are written in small ones";
}

std::string notOneOf(const std::string& name, std::initializer_list<const char*> names, const char* told) {
    return std::find(names.begin(), names.end(), name) == names.end() ? quoted(name) + " is none of " + told : "";
}

std::string notASlot(const std::string& name) {
    return notOneOf(name, {"host", "keyring", "passphrase", "recovery"}, "host, keyring, passphrase and recovery");
}

std::string notARemovableSlot(const std::string& name) {
    return notOneOf(name, {"host", "keyring", "passphrase", "all"}, "host, keyring, passphrase and all");
}

constexpr Argument checked(Argument argument, std::string (*fault)(const std::string&)) {
    argument.fault = fault;
    return argument;
}

constexpr Argument kKey = checked({"KEY", "The key, never empty", &Request::key}, tooLong);
constexpr Argument kKeyId = checked({"ID", "The key's id, or its first 4 digits or more", &Request::key}, notAKeyId);
constexpr Argument kSlot =
    checked({"SLOT", "host, keyring, passphrase, or recovery for a new code", &Request::key}, notASlot);
constexpr Argument kRemovableSlot =
    checked({"SLOT", "host, keyring, passphrase, or all for a plain key ring", &Request::key}, notARemovableSlot);
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
constexpr Flag kYesCode{"--yes", "Don't ask, and print a new recovery code instead of having it typed again",
                        &Request::yes};
constexpr Flag kPrune{"--prune", "Delete the policies that FILE doesn't name; asks first", &Request::prune};
constexpr Flag kYesPrune{"--yes", "With --prune: don't ask", &Request::yes, "--prune"};
constexpr Flag kDryRun{"--dry-run", "Send nothing; print what would change, and why", &Request::dryRun};
constexpr Flag kReseal{"--reseal", "Seal every value and policy anew under it, while the service goes on serving",
                       &Request::reseal};
constexpr ValueOption kProductDir{"--product-dir",
                                  "DIR",
                                  "With --local: the product's data folder; DIR/../etc/build.prop is read",
                                  "--local",
                                  &Request::productDir,
                                  notAFolder};
constexpr ValueOption kProductFiles{
    "--product-dir",
    "DIR",
    "The product's data folder, whose ../etc/build.prop is read; left out, it is the one "
    "that the running service was told",
    "",
    &Request::productDir,
    notAFolder};
constexpr char kWhichFolder[] =
    "The service's data folder; left out, it is where the running service has its data, else the one that sdconfigd "
    "takes";
constexpr ValueOption kDataDir{"--data-dir", "DIR", kWhichFolder, "", &Request::dataDir, notAFolder};
constexpr ValueOption kExecute{
    "--exec",          "CMD",         "Run \"sh -c CMD\" for each change, with SDCONFIG_KEY and SDCONFIG_VALUE set", "",
    &Request::execute, apps::notEmpty};

constexpr Flag kUnchecked{"--unchecked", "Go on whatever the key's description says", &Request::unchecked};
constexpr ValueOption kKeysDir{"--keys-dir",
                               "DIR",
                               "A folder of descriptions besides /usr/share/sdconfig/keys.d and /etc/sdconfig/keys.d; "
                               "its files replace those of the same name there",
                               "",
                               nullptr,
                               notAFolder,
                               nullptr,
                               &Request::keysDirs};
constexpr Argument kDescribed{"KEY", "A key, or a glob; left out, all that is described", &Request::key,
                              &Request::keyGiven};
constexpr Argument kLintedKeys =
    checked({"FILE", "Files of descriptions, and folders of such files; left out, those of the machine", nullptr,
             &Request::keysGiven, false, &Request::keys},
            notThere);
constexpr Flag kNames{"--names", "Print the keys alone", &Request::names};
constexpr Flag kAllowed{"--values", "Print the values that KEY may have, where they are few", &Request::values};
constexpr Flag kListDescribed{"--described", "What is described and unset, too, with its default", &Request::described};

constexpr Argument kUri =
    checked({"URI", "The configuration key that the policy governs, never empty", &Request::key}, tooLong);
constexpr Argument kPriority{"PRIORITY", "0 to 127; above 5 it overrides the local secure value", &Request::priority};
constexpr Argument kWrittenFile{"FILE", "Takes the policies in the place of what it held; - is standard output",
                                &Request::file};
constexpr Argument kReadFile{"FILE", "A file of policies; - is standard input", &Request::file, &Request::fileGiven};
constexpr Argument kInstalledFile = checked({"FILE", "A file of policies", &Request::file}, notAFile);
constexpr Argument kInstalledName{"NAME", "The file's name, as in 50-fleet", &Request::key};
constexpr Argument kLinted = checked(
    {"FILE", "Files of policies, and folders of such files", nullptr, nullptr, false, &Request::keys}, notThere);
constexpr Flag kMachine{"--machine", "The machine's policies, too, in the place of those beneath them",
                        &Request::machine};
constexpr Flag kStrict{"--strict", "Take warnings for faults", &Request::strict};
constexpr Flag kRehearse{"--dry-run", "Change nothing; print what would change for whom", &Request::dryRun};
constexpr ValueOption kFileName{"--name", "NAME",         "Its name there; left out, it is FILE's",
                                "",       &Request::name, apps::notEmpty};
constexpr ValueOption kTriedFolders{"--policy-dir",
                                    "DIR",
                                    "With --dry-run, and without FILE: folders of policies, as if they were the "
                                    "machine's; the files of a later one count before those of an earlier one",
                                    "--dry-run",
                                    nullptr,
                                    notAFolder,
                                    nullptr,
                                    &Request::policyDirs};
constexpr ValueOption kChangedFolder{"--policy-dir",
                                     "DIR",
                                     "A folder that services were told of, in the place of /etc/sdconfig/policies.d",
                                     "",
                                     nullptr,
                                     apps::notEmpty,
                                     nullptr,
                                     &Request::policyDirs};
constexpr ValueOption kTriedBackup{
    "--backup",     "FILE",           "With --policy-dir: try them on this backup's data",
    "--policy-dir", &Request::backup, notAFile};
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
constexpr ValueOption kDefault{"--default",
                               "VALUE",
                               "Print it instead of what is unset",
                               "",
                               &Request::fallback,
                               nullptr,
                               &Request::fallbackGiven};
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

constexpr Flag kDigest{"--digest", "Print a digest of all that the folder holds, to be noted elsewhere",
                       &Request::digest};
constexpr ValueOption kAgainst{
    "--against", "DIGEST",          "Find whether the folder holds what it held when this was printed",
    "",          &Request::against, notADigest};

constexpr Argument kLogged = checked({"KEY", "Of these alone; \"a.b.*\" is all that begin with \"a.b.\"", nullptr,
                                      &Request::keysGiven, false, &Request::keys},
                                     tooLong);
constexpr Flag kFollow{"--follow", "Begin with the last ten, and go on with those to come, the oldest first",
                       &Request::follow};
constexpr Flag kReverse{"--reverse", "Print the oldest first", &Request::reverse};
constexpr ValueOption kSince{
    "--since", "TIME",          "Only from then on: 90s, 15m, 2h, 2d or 3w ago, or 2030-01-31T12:00",
    "",        &Request::since, notATime};
constexpr ValueOption kBy{
    "--by", "WHO",        "Only by this program, unit or user: a path or its last part, a unit, a uid",
    "",     &Request::by, apps::notEmpty};
constexpr ValueOption kHead{
    "--head", "HEAD",         "Find whether all is there that was when \"log head\" printed this",
    "",       &Request::head, apps::notEmpty};
constexpr Flag kShowInPage{"--show", "Put values in that are sealed at rest; the page says so", &Request::show};
constexpr ValueOption kOutput{
    "-o,--output",  "FILE",        "Write the page to this file, for your eyes alone; left out, to standard output", "",
    &Request::file, apps::notEmpty};
constexpr ValueOption kWith{"--with",
                            "FILE",
                            "A file of policies: tell what would change, were it among the machine's",
                            "",
                            nullptr,
                            notAFile,
                            nullptr,
                            &Request::policyFiles};

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

constexpr char kSetNotes[] =
    "Where files of descriptions describe the key, VALUE is checked, and brought into the form that programs read:\n"
    "true for yes, 1h30m for 90m.\n";

constexpr char kDescribeNotes[] =
    "A line a key, KEY, type, default and summary; of one key all that its description says, in the language of the\n"
    "environment. In a glob \"*\" stands for what is between two dots, and at the end for all that follows.\n";

constexpr char kKeysLintNotes[] =
    "A line a finding: a fault, for which a description is left out, or a warning, as where two files describe one\n"
    "key. Exit code 1 where there are faults. Needs no service, and no rights.\n";

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
    "With --prune it is the whole truth: once all of it is stored, policies that it doesn't name are deleted.\n"
    "--policy-dir tries folders of the machine's policies, also on a copied data folder or a backup.\n";

constexpr char kPolicyStatusNotes[] =
    "Files in /usr/lib/sdconfig/policies.d, /etc/sdconfig/policies.d and /run/sdconfig/policies.d govern every user.\n"
    "Exit code 1 where a file or a folder is left out, or not as it was last written. Without a service the files are\n"
    "read here.\n";

constexpr char kLintNotes[] =
    "A line a finding: a fault, for which a service would leave the file out, or a warning, as where two files\n"
    "disagree. Exit code 1 where there are faults. Needs no service, and no rights.\n";

constexpr char kInstallNotes[] =
    "For root. Each user whose service runs is told of, with what changes there; a service takes it up at once.\n";

constexpr char kLogNotes[] =
    "A line an entry, the newest first: its number, when it was, what was done, the key, and by whom. Values are "
    "never\n"
    "in it. At a terminal it goes through $PAGER, or less. Needs no service. Exit code 1 where something can't be\n"
    "shown. A key that is called as a command that begins with log is given behind --.\n";

constexpr char kLogVerifyNotes[] =
    "Names the first line that is not as it was written, with exit code 1: changed, put in, taken out, put elsewhere.\n"
    "That lines at the end are gone shows by --head alone. A locked key ring is opened by its slots, or at a terminal\n"
    "by what is typed.\n";

constexpr char kLogHeadNotes[] =
    "To be noted where nobody who writes to the folder can change it: \"log verify --head\" finds then whether all "
    "that\n"
    "came before is there and as it was.\n";

constexpr char kWatchNotes[] =
    "A line a change, KEY and value, until it is interrupted. It goes on through restarts of the service. Values are\n"
    "printed, secrets too. One CMD runs at a time, in the order of the changes, with an empty standard input.\n";

constexpr char kUpgradeNotes[] =
    "Settings and secure values of version 2 are copied to sealed values; those of the same key are replaced. A copy "
    "of\n"
    "the database is kept beside it first.\n";

constexpr char kCheckNotes[] =
    "A line a finding, with what to do about it. Nothing is created or changed, and the service may run. Exit code 1\n"
    "where there are findings. A DIGEST is the same for the same keys, values and policies, however they are sealed.\n";

constexpr char kKeyListNotes[] =
    "A line a key, the oldest first: id, state (sealing, opening, disabled, or missing: rows need it and it isn't\n"
    "there), when it was made, by which version, the values and the policies that are sealed with it, and how often "
    "it\n"
    "sealed. Needs no service. No key itself is ever printed.\n";

constexpr char kKeyRotateNotes[] =
    "What was sealed before still opens. With --reseal, repeated after an interruption, it goes on where that was, "
    "and\n"
    "makes no other key. What can't be opened is left as it is and named, with exit code 1.\n";

constexpr char kKeyDisableNotes[] =
    "A rehearsal of its loss: what is sealed with it reads as \"\". The key that seals can't be disabled.\n";

constexpr char kKeyPruneNotes[] =
    "A key that a row needs stays, and its rows are named, with exit code 1. Backups that were made without their key\n"
    "ring can't be opened without a removed key.\n";

constexpr char kKeySlotsNotes[] =
    "A line a slot: its kind, when it was made, and whether it opens the key ring now and here: opens, typed (by what "
    "a\n"
    "person knows, which is not tried), waits, or refused, with the reason. Needs no service.\n";

constexpr char kKeyProtectNotes[] =
    "host: the machine's own key, and its TPM. keyring: the login keyring. passphrase: the first line of standard "
    "input;"
    "\n"
    "at a terminal it is asked for twice and not shown. The first slot of a plain key ring comes with a recovery "
    "code,\n"
    "and a new passphrase in the place of an old one with a new code: it is shown once at the terminal and typed "
    "again;\n"
    "with --yes it is printed instead. Where a new code alone is made, a passphrase that there is has to be given.\n";

constexpr char kKeyUnprotectNotes[] =
    "A new recovery code is made, as key protect makes it, and the passphrase has to be given where there is one that\n"
    "stays: nobody who knows the slot's secret or an earlier code opens what is written from then on. The last slot "
    "goes"
    "\n"
    "with all of them, after asking: the key ring is plain then, and a copy of the folder opens everything.\n";

constexpr char kKeyUnlockNotes[] =
    "Until the service ends. The passphrase is the first line of standard input; at a terminal it is asked for and "
    "not\n"
    "shown.\n";

constexpr char kKeyRecoverNotes[] =
    "For a new machine, a new mainboard, a cleared TPM, a lost keyring. The code is the first line of standard input; "
    "at\n"
    "a terminal it is asked for and not shown. Slots host and keyring that don't open here are made anew.\n";

constexpr char kDoctorNotes[] =
    "A line each for folders, socket, service, versions, environment, units and data: \"ok\" or \"problem\". Nothing "
    "is\n"
    "changed; where systemd listens in the service's place, the service is started. Exit code 1 where there are "
    "problems.\n";

constexpr char kReportNotes[] =
    "One page of HTML, which loads nothing: what each key is and why, who changed it and who listens, what is wrong,\n"
    "and what could not be seen. Needs no service. Values that are sealed at rest are not in it without --show.\n";

constexpr char kBackupNotes[] =
    "FILE gets both databases, each as it stood at one moment, and the key ring, sealed under a passphrase: the first\n"
    "line of standard input; at a terminal it is asked for twice and not shown. The service may run.\n";

constexpr char kRestoreNotes[] =
    "The backup is checked whole before it takes the place of DATA-DIR. The passphrase is the first line of standard\n"
    "input; at a terminal it is asked for and not shown. No service may run on DATA-DIR.\n";

}  // namespace

const std::vector<Group>& groups() {
    static const std::vector<Group> all{
        {"secure", "Values that are sealed at rest: get, set, delete, exec", "sdconfig secure get mail.password"},
        {"key",
         "The keys that values and policies are sealed with, and what opens their ring: list, rotate, disable, enable, "
         "prune, slots, protect, unprotect, unlock, recover",
         "sdconfig key list"},
        {"policy", "Policies: set, get, delete, list, strong, clear, export, apply, status, lint, install, remove",
         "sdconfig policy list"},
        {"keys", "Descriptions of keys: lint", "sdconfig keys lint"},
    };
    return all;
}

const std::vector<Command>& commands() {
    static const std::vector<Command> all{
        {"",
         "get",
         "Prints properties",
         "sdconfig get sd.ui.theme",
         {kProperties},
         {kLocal},
         {kProductDir, kDefault},
         kGetNotes},
        {"",
         "set",
         "Sets a property, until the service stops",
         "sdconfig set sd.ui.theme dark",
         {kKey, kValue},
         {kUnchecked},
         {kKeysDir},
         kSetNotes},
        {"", "delete", "Deletes a property", "sdconfig delete sd.ui.theme", {kKey}, {}, {}},
        {"secure",
         "get",
         "Prints secure values",
         "sdconfig secure get mail.password",
         {kSomeKeys},
         {},
         {kDefault},
         kGetSecureNotes},
        {"secure",
         "set",
         "Stores a secure value",
         "pass show mail | sdconfig secure set mail.password",
         {kKey, kSecret},
         {kUnchecked},
         {kKeysDir},
         kSetSecureNotes},
        {"secure",
         "delete",
         "Deletes a secure value; one that isn't there is no error",
         "sdconfig secure delete mail.password",
         {kKey},
         {},
         {}},
        {"secure",
         "exec",
         "Runs a program with secure values in its environment",
         "sdconfig secure exec mail.password=PASSWORD -- fetchmail",
         {kPairs},
         {},
         {},
         kExecNotes},
        {"policy",
         "set",
         "Sets a policy",
         "sdconfig policy set wlan.enabled off 6",
         {kUri, kValue, kPriority},
         {kUnchecked},
         {kKeysDir},
         kSetPolicyNotes},
        {"policy",
         "get",
         "Prints the value in force: the policy's or the local one",
         "sdconfig policy get wlan.enabled",
         {kUri},
         {},
         {}},
        {"policy",
         "delete",
         "Deletes a policy; one that isn't there is no error",
         "sdconfig policy delete wlan.enabled",
         {kUri},
         {},
         {}},
        {"policy",
         "list",
         "Prints the policies: URI, priority, value, whether it is in force, and the file of one of the machine's",
         "sdconfig policy list --json",
         {},
         {},
         {kDataDir}},
        {"policy",
         "strong",
         "Tells whether a policy overrides the local value",
         "sdconfig policy strong wlan.enabled",
         {kUri},
         {},
         {}},
        {"policy", "clear", "Deletes all policies", "sdconfig policy clear --yes", {}, {kYes}, {}},
        {"policy",
         "export",
         "Writes the stored policies to a file",
         "sdconfig policy export fleet.json",
         {kWrittenFile},
         {kMachine},
         {kDataDir}},
        {"policy",
         "apply",
         "Sets the policies of a file",
         "sdconfig policy apply fleet.json --dry-run",
         {kReadFile},
         {kDryRun, kShowChanges, kPrune, kYesPrune, kUnchecked},
         {kDataDir, kTriedFolders, kTriedBackup, kKeysDir},
         kApplyNotes},
        {"policy",
         "status",
         "Tells which files of the machine's policies were read, and what of them is left out",
         "sdconfig policy status --json",
         {},
         {},
         {},
         kPolicyStatusNotes},
        {"policy",
         "lint",
         "Finds all that is wrong with files of the machine's policies",
         "sdconfig policy lint 50-fleet.json",
         {kLinted},
         {kStrict, kUnchecked},
         {kKeysDir},
         kLintNotes},
        {"policy",
         "install",
         "Makes a file's policies those of the machine, for every user",
         "sudo sdconfig policy install fleet.json --name 50-fleet",
         {kInstalledFile},
         {kRehearse, kUnchecked},
         {kFileName, kChangedFolder, kKeysDir},
         kInstallNotes},
        {"policy",
         "remove",
         "Removes a file of the machine's policies",
         "sudo sdconfig policy remove 50-fleet",
         {kInstalledName},
         {kRehearse},
         {kChangedFolder},
         kInstallNotes},
        {"key",
         "list",
         "Prints the keys: id, state, when and by what they were made, what they hold",
         "sdconfig key list",
         {},
         {},
         {kDataDir},
         kKeyListNotes},
        {"key",
         "rotate",
         "Makes a new key, with which everything is sealed from now on",
         "sdconfig key rotate --reseal",
         {},
         {kReseal},
         {},
         kKeyRotateNotes},
        {"key",
         "disable",
         "Lets a key open nothing, until it is enabled again",
         "sdconfig key disable 3f9c",
         {kKeyId},
         {},
         {},
         kKeyDisableNotes},
        {"key", "enable", "Lets a disabled key open again", "sdconfig key enable 3f9c", {kKeyId}, {}, {}},
        {"key",
         "prune",
         "Removes the keys that nothing is sealed with; asks first",
         "sdconfig key prune",
         {},
         {kYes},
         {},
         kKeyPruneNotes},
        {"key",
         "slots",
         "Prints the slots that open a wrapped key ring, and whether they do here",
         "sdconfig key slots",
         {},
         {},
         {kDataDir},
         kKeySlotsNotes},
        {"key",
         "protect",
         "Wraps the key ring, so that a copy of the folder opens nothing; or makes another slot",
         "sdconfig key protect host",
         {kSlot},
         {kYesCode},
         {},
         kKeyProtectNotes},
        {"key",
         "unprotect",
         "Removes a slot of the key ring, or its wrap",
         "sdconfig key unprotect keyring",
         {kRemovableSlot},
         {kYesCode},
         {},
         kKeyUnprotectNotes},
        {"key", "unlock", "Opens the key ring by its passphrase", "sdconfig key unlock", {}, {}, {}, kKeyUnlockNotes},
        {"key",
         "recover",
         "Opens the key ring by its recovery code, and mends its slots",
         "sdconfig key recover",
         {},
         {},
         {},
         kKeyRecoverNotes},
        {"",
         "explain",
         "Tells where a key's value comes from",
         "sdconfig explain wlan.enabled --show",
         {kKey},
         {kShow},
         {kDataDir, kProductFiles, kKeysDir}},
        {"",
         "describe",
         "Tells what keys are for, and what their values may be",
         "sdconfig describe velmar.proxy.port",
         {kDescribed},
         {kNames, kAllowed},
         {kKeysDir},
         kDescribeNotes},
        {"keys",
         "lint",
         "Finds all that is wrong with files of descriptions",
         "sdconfig keys lint velmar.keys.json",
         {kLintedKeys},
         {kStrict},
         {kKeysDir},
         kKeysLintNotes},
        {"",
         "log",
         "Tells what was done to which key, when and by whom",
         "sdconfig log 'velmar.proxy.*' --since 2d",
         {kLogged},
         {kFollow, kReverse},
         {kSince, kBy, kDataDir},
         kLogNotes},
        {"log",
         "verify",
         "Finds whether the trail is as it was written",
         "sdconfig log verify --head \"$(cat noted)\"",
         {},
         {},
         {kHead, kDataDir},
         kLogVerifyNotes},
        {"log",
         "head",
         "Prints what attests the trail up to now",
         "sdconfig log head >noted",
         {},
         {},
         {kDataDir},
         kLogHeadNotes},
        {"",
         "watch",
         "Prints changes of keys as they happen",
         "sdconfig watch sd.ui.theme --exec 'notify-send \"$SDCONFIG_VALUE\"'",
         {kKeys},
         {},
         {kExecute},
         kWatchNotes},
        {"",
         "list",
         "Prints the keys of the secure values and of the policies",
         "sdconfig list 'velmar.proxy.*'",
         {kListed},
         {kShow, kListDescribed},
         {kDataDir, kKeysDir}},
        {"",
         "upgrade",
         "Carries an earlier version's database over, while no service runs on it",
         "sdconfig upgrade ~/.local/share/sdconfig --dry-run",
         {kDataFolder},
         {kReport, kForce},
         {},
         kUpgradeNotes},
        {"",
         "doctor",
         "Tells what is wrong with the service, and what to type next",
         "sdconfig doctor",
         {},
         {},
         {kDataDir},
         kDoctorNotes},
        {"",
         "report",
         "Writes a page that tells what each key is, and why",
         "sdconfig report -o report.html --with 60-pilot.json",
         {},
         {kShowInPage},
         {kOutput, kWith, kDataDir, kProductFiles, kKeysDir},
         kReportNotes},
        {"",
         "check",
         "Looks for faults in the data folder",
         "sdconfig check ~/.local/share/sdconfig",
         {kDataOf},
         {kDigest},
         {kAgainst},
         kCheckNotes},
        {"",
         "backup",
         "Writes the data folder to a file",
         "pass show sdconfig-backup | sdconfig backup /backups/sdconfig.monday",
         {kBackup, kDataOf},
         {kOverwrite, kLeaveOutKeys},
         {},
         kBackupNotes},
        {"",
         "restore",
         "Puts a backup in the place of a data folder",
         "sdconfig restore /backups/sdconfig.monday ~/.local/share/sdconfig --force",
         {kMadeBackup, kRestored},
         {kReplace, kIgnoreKeys},
         {},
         kRestoreNotes},
        {"", "const", "Prints a constant of the service", "sdconfig const region", {kName}, {}, {}},
        {"",
         "sign",
         "Prints the signature of a text, which in this version is the text itself",
         "sdconfig sign \"some text\"",
         {kText},
         {},
         {}},
        {"",
         "verify",
         "Tells whether a signature fits a text, as in this version each does",
         "sdconfig verify \"some text\" \"$signature\"",
         {kText, kSignature},
         {},
         {}},
        {"",
         "status",
         "Tells whether the service is there, and how fast it answers",
         "sdconfig status --json",
         {},
         {},
         {}},
    };
    return all;
}

std::string nameOf(const Command& command) {
    return command.group[0] ? std::string(command.group) + " " + command.name : command.name;
}

}  // namespace cli
