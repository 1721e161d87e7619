#include "apps/sdconfig/terminal/messages.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "apps/common/process.h"
#include "apps/common/system_service.h"
#include "apps/sdconfig/request/key_pattern.h"
#include "apps/sdconfig/request/read_only_key.h"
#include "apps/sdconfig/terminal/acting_user.h"
#include "platform/sdbus/sdbus.h"
#include "src/sdconfig_protocol.h"

namespace cli {

namespace {

// A line for a person ends somewhere.
constexpr std::size_t kMaxLine = 2000;

constexpr char kOtherwiseThanHere[] =
    "leave out --local to ask the service, or name the product's folder with --product-dir";

// In one write, so that lines of several processes don't mix. Where standard error itself is gone nobody can be told.
void printLine(const std::string& text) {
    const std::string line = "sdconfig: " + sd::cutAt(escaped(text), kMaxLine) + "\n";
    (void)!::write(STDERR_FILENO, line.data(), line.size());
}

int failUse(const std::string& command, const std::string& happened, const std::string& hint) {
    const std::string space = command.empty() ? "" : " ";
    return fail(kUsage, command.empty() ? "reading the command line" : command, happened,
                hint + "see: sdconfig" + space + command + " --help");
}

std::string seeVersions() {
    return "see whether its version is another: " + typed("doctor");
}

// What a command begins with that has to run as the user for whom root acts.
std::string byActedUser() {
    return actedUser().empty() ? "" : "runuser -u " + shellWord(actedUser()) + " -- ";
}

// The service of this environment where a person started it, without systemd; else 0.
int processByHand() {
    const int process = SDBusSerivceManager::initSync(-1)->serviceProcess(sd::protocol::kServiceName);
    return process > 0 && !apps::isServiceUnit(process) ? process : 0;
}

// Root's "journalctl --user" shows root's own services alone.
std::string seeItsLog() {
    if (const int process = processByHand())
        return "its log tells why; where that goes: readlink /proc/" + std::to_string(process) + "/fd/2";
    const std::string user = actedUser().empty()
                                 ? "--user -u sdconfigd"
                                 : "_UID=" + std::to_string(::geteuid()) + " _SYSTEMD_USER_UNIT=sdconfigd.service";
    return "its log tells why: journalctl " + (apps::isSystemService() ? "-u sdconfigd" : user);
}

}  // namespace

int fail(ExitCode code, const std::string& tried, const std::string& happened, const std::string& next) {
    printLine(tried + ": " + happened + "; " + next);
    return code;
}

void note(const std::string& text) {
    printLine("note: " + text);
}

std::string typed(const std::string& words) {
    return "sdconfig " + (actedUser().empty() ? "" : "--user " + shellWord(actedUser()) + " ") + words;
}

std::string systemctl() {
    if (apps::isSystemService()) return "systemctl";
    return "systemctl --user" + (actedUser().empty() ? "" : " --machine=" + shellWord(actedUser() + "@"));
}

std::string howToStart() {
    return "start it with: " + systemctl() + " start sdconfigd, or: " + byActedUser() + "sdconfigd";
}

std::string howToRestart() {
    if (const int process = processByHand())
        return "end the service with: " + apps::howToEnd(process) +
               "; then start it with: " + apps::howToStartAgain(process, byActedUser());
    return "restart the service with: " + systemctl() + " restart sdconfigd";
}

std::string asArgument(const std::string& text) {
    return (!text.empty() && text.front() == '-' ? "-- " : "") + shellWord(text);
}

std::string attempt(const Request& request) {
    const std::string& key = request.key.empty() && request.keys.size() == 1 ? request.keys.front() : request.key;
    return key.empty() ? request.command : request.command + " " + quoted(key);
}

std::string attemptOnFile(const Request& request) {
    return request.command + " " + quoted(request.file);
}

int notRunning(const std::string& tried, const std::string& socketPath, const std::string& lookedAt) {
    const std::string what = "the service is not running (" + lookedAt + ")";
    if (const std::string owner = ownerOfRuntimeFolder(); !owner.empty())
        return fail(kNoService, tried, what, "use the service of that user: repeat it with --user " + shellWord(owner));
    if (socketPath.empty())
        return fail(kNoService, tried, what, "set XDG_RUNTIME_DIR to a folder that is yours and has mode 0700");
    return fail(kNoService, tried, what, howToStart() + "; where it ends again, this tells why: " + typed("doctor"));
}

int noAnswer(const std::string& tried, const Problem& problem, const std::string& socketPath) {
    return fail(kNoService, tried, "the service on " + socketPath + " " + problem.what, problem.next);
}

int callUnanswered(const Request& request) {
    return fail(kNoService, attempt(request), "the service gave this call no answer, though it answers others",
                seeVersions() + "; " + seeItsLog());
}

int answerUnreadable(const std::string& tried) {
    return fail(kNoService, tried, "the service's answer is none that this version can read", seeVersions());
}

int unset(const Request& request) {
    const bool isProperty = request.command == "get";
    if (!isProperty && isPattern(request.key))
        return fail(
            kRefused, attempt(request), "not set, or set to nothing",
            "a key is named whole here; those that begin so are shown by: " + typed("list ") + asArgument(request.key));
    return fail(kRefused, attempt(request), "not set, or set to nothing",
                "give it a value with: " + typed(isProperty ? "set " : "secure set ") + asArgument(request.key) +
                    (isProperty ? " VALUE" : ""));
}

int unopenable(const Request& request) {
    return fail(kRefused, attempt(request), "something is stored, and it can't be opened",
                "see what is wrong with: " + typed("check"));
}

int unsetHere(const Request& request) {
    return fail(kRefused, attempt(request), "no build.prop file that can be read here gives it a value",
                kOtherwiseThanHere);
}

int nothingListed(const Request& request) {
    return fail(kRefused, attempt(request),
                std::string("no property that can be listed ") + (request.key.empty() ? "is set" : "begins so"),
                request.local ? kOtherwiseThanHere : "name a key whole to ask for one that was set at run time");
}

int noSuchConst(const Request& request) {
    return fail(kRefused, attempt(request), "no such constant, or an empty one",
                "the service takes its constants from: sdconfigd --constants FILE");
}

int notSigned(const Request& request) {
    return fail(kRefused, attempt(request), "the service gave no signature", seeItsLog());
}

void noteOutweighed(const std::string& key) {
    note("a policy above priority 5 overrides what was set, which shows once the policy is gone; see: " +
         typed("explain ") + asArgument(key));
}

void noteHides(const std::string& key, int priority) {
    note("the empty value hides the policy of priority " + std::to_string(priority) +
         "; this lets it through: " + typed("secure delete ") + asArgument(key));
}

void noteHidden(const std::string& key, bool byValue) {
    note(std::string(byValue ? "the local secure value outweighs" : "an empty local row hides") +
         " this policy, which is not above priority 5; see: " + typed("explain ") + asArgument(key));
}

void noteStaysInForce(const std::string& key) {
    note("a policy above priority 5 gives the key its value as before; see: " + typed("explain ") + asArgument(key));
}

void noteLetThrough(int priority) {
    note("an empty local row hid the policy of priority " + std::to_string(priority) + ", which is in force now");
}

void noteProperty(const std::string& key) {
    note("policies govern secure values, not properties; this goes on printing the property: " + typed("get ") +
         asArgument(key));
}

void noteListedProperties() {
    note("properties that no build.prop file here defines are not listed; ask for one by its key");
}

int setRefused(const Request& request) {
    if (isReadOnlyKey(request.key))
        return fail(kRefused, attempt(request), "a key that begins with \"ro.\" is read-only once it has a value",
                    "see what it holds with: " + typed("get ") + asArgument(request.key));
    return fail(kRefused, attempt(request), "the service refused the value", seeItsLog());
}

int deleteRefused(const Request& request) {
    if (isReadOnlyKey(request.key))
        return fail(kRefused, attempt(request), "a key that begins with \"ro.\" is read-only and can't be deleted",
                    "use a key without \"ro.\" for what has to change");
    return fail(kRefused, attempt(request), "it is not set", "there is nothing to delete; check the key's spelling");
}

int secureWriteRefused(const Request& request) {
    return fail(kRefused, attempt(request), "the service could not store it", seeItsLog());
}

int policyUnset(const Request& request) {
    return fail(kRefused, attempt(request), "neither a policy nor a local secure value gives it a value",
                "see why with: " + typed("explain ") + asArgument(request.key));
}

int policyRefused(const Request& request) {
    return fail(kRefused, attempt(request), "the service could not store the change", seeItsLog());
}

int policyGoverned(const Request& request, const std::string& place) {
    return fail(kRefused, attempt(request), "a policy of the machine governs it, which stands in " + place,
                "root changes it there; see: " + typed("explain ") + asArgument(request.key));
}

int policiesGoverned(const Request& request, std::size_t count) {
    return fail(kRefused, attemptOnFile(request),
                std::to_string(count) + (count == 1 ? " policy is" : " policies are") +
                    " left as the machine's policies have them",
                "root changes them in the files that were named; see: " + typed("policy status"));
}

void noteGoverned(const std::string& place) {
    note("a policy of the machine, in " + place + ", overrides what was set, which shows once that policy is gone");
}

int policyStatusUntold(const Request& request) {
    return fail(kRefused, attempt(request), "the service tells nothing of policies of the machine", seeVersions());
}

int policiesLeftOut(const Request& request, std::size_t count) {
    return fail(kRefused, attempt(request),
                std::to_string(count) + (count == 1 ? " file or folder is" : " files or folders are") +
                    " left out, or not as last written",
                "mend what the lines tell; of a file's text this tells all: sdconfig policy lint FILE");
}

int notInstalled(const Request& request, const Problem& problem) {
    return fail(request.dryRun ? kUsage : kRefused, attemptOnFile(request), problem.what,
                "nothing was changed; " + problem.next);
}

int notRemoved(const Request& request, const Problem& problem) {
    return fail(kRefused, attempt(request), problem.what, "nothing was changed; " + problem.next);
}

void noteUntold(const std::string& user, const std::string& why) {
    note("what it changes for " + quoted(user) + " can't be told: " + why);
}

int notTried(const Request& request, const Problem& problem) {
    return fail(kRefused, attempt(request), problem.what, problem.next);
}

int triedInPart(const Request& request) {
    return fail(kRefused, attempt(request), "some of the folders was left out, as a service would leave it out",
                "mend what was told, and repeat it");
}

void noteNotTried(const std::string& path, const std::string& why) {
    note((path.empty() ? "" : path + ": ") + why + "; nothing of it counts");
}

void noteGovernsNobody(const std::string& name, const std::string& why) {
    note("\"users\" names " + quoted(name) + ", which " + why + ", and governs nobody");
}

void notePoliciesStay(std::size_t count) {
    note(std::to_string(count) + (count == 1 ? " policy" : " policies") +
         " of the machine stay, which stand in files; see: " + typed("policy status"));
}

int policiesRefused(const Request& request) {
    return fail(kRefused, attemptOnFile(request), "not every policy reads back as it was sent",
                (request.prune ? "none was deleted; " : "") + seeItsLog());
}

int notPruned(const Request& request) {
    return fail(kRefused, attemptOnFile(request), "not every policy that the file doesn't name could be deleted",
                seeItsLog());
}

int notAskable(const Request& request, const std::string& what) {
    return fail(kUsage, attempt(request), "it deletes " + what + ", and there is no terminal to ask on",
                "nothing was changed; say --yes if that is meant");
}

int notConfirmed(const Request& request) {
    return fail(kRefused, attempt(request), "not confirmed", "nothing was changed; answer y, or say --yes");
}

int unfitPolicy(const Request& request, const Problem& problem) {
    return fail(kUsage, attempt(request), problem.what, "nothing was changed; " + problem.next);
}

int policyFileUnread(const Request& request, const std::string& problem) {
    return fail(kUsage, attemptOnFile(request), problem,
                "nothing was changed; name a file of policies that can be read, or - for standard input");
}

int unfitPolicyFile(const Request& request, const std::string& problem) {
    return fail(kUsage, attemptOnFile(request), problem,
                "nothing was changed; see \"man sdconfig-policy\" for what a file of policies holds");
}

int fileNotWritten(const Request& request, const std::string& reason) {
    return fail(kRefused, attemptOnFile(request), reason, "name another file, or - to print it");
}

int policiesUntold(const Request& request) {
    return fail(kRefused, attemptOnFile(request), "of some policies it can't be told whether they are stored",
                "name the service's data folder with --data-dir");
}

int surplusUnknown(const Request& request) {
    return fail(kRefused, attemptOnFile(request), "it can't be told which policies the file doesn't name",
                "nothing was changed; name the service's data folder with --data-dir");
}

int leftOut(const Request& request, const std::string& what, const std::string& next) {
    return fail(kRefused, attemptOnFile(request), what, "the result is not complete; " + next);
}

void notePartlySent(std::size_t sent, std::size_t all) {
    note(std::to_string(sent) + " of " + std::to_string(all) + " policies were sent before that");
}

void noteListCut() {
    note("the service lists 122 policies at most, so there may be more; --data-dir names the folder to read all");
}

void notePartlyDeleted(std::size_t deleted, std::size_t all) {
    note(std::to_string(deleted) + " of " + std::to_string(all) + " policies were deleted before that");
}

void noteWithoutService(const std::string& folder) {
    note("the service is not running; this was read from " + folder);
}

int valueMisfit(const Request& request, const Problem& problem) {
    return fail(kUsage, attempt(request), problem.what,
                "nothing was changed; " + problem.next + ", or say --unchecked");
}

void noteUndescribed(const std::string& key, const std::string& meant) {
    note("the key " + quoted(key) + " is described nowhere" +
         (meant.empty() ? "" : "; did you mean " + quoted(meant) + "?"));
}

void noteUndescribed(std::size_t count) {
    note(std::to_string(count) + (count == 1 ? " more key is" : " more keys are") + " described nowhere");
}

void noteDeprecated(const std::string& key, const std::string& replacedBy) {
    note("the key " + quoted(key) + " is deprecated" +
         (replacedBy.empty() ? "" : "; use " + quoted(replacedBy) + " instead"));
}

void noteDescriptionLeftOut(const std::string& file, const std::string& place, const Problem& problem) {
    note(file + (file.empty() || place.empty() ? "" : ", ") + place + ": " + problem.what + "; it is left out; " +
         problem.next);
}

int notDescribed(const Request& request, const std::string& meant) {
    return fail(kRefused, attempt(request), "nothing describes it",
                meant.empty() ? "see what is described: " + typed("describe") : "did you mean " + quoted(meant) + "?");
}

void noteOtherForms(const Request& request, std::size_t count) {
    note(std::to_string(count) + (count == 1 ? " value is" : " values are") +
         " in another form than programs write, and stay so; see: sdconfig policy lint " + asArgument(request.file));
}

void tellMisfit(const std::string& file, int line, const std::string& uri, const Problem& problem) {
    (void)fail(kUsage, file + ", line " + std::to_string(line) + ", " + quoted(uri), problem.what, problem.next);
}

int policiesMisfit(const Request& request, std::size_t count) {
    return fail(kUsage, attemptOnFile(request),
                std::to_string(count) + (count == 1 ? " policy is" : " policies are") +
                    " not as the descriptions of keys have it",
                "nothing was changed; mend what was told, or say --unchecked");
}

int dataUnreadable(const Request& request, const Problem& problem) {
    return fail(kRefused, attempt(request), problem.what,
                problem.next.empty() ? "name the service's data folder with --data-dir" : problem.next);
}

int otherDataFolder(const Request& request, const std::string& folder) {
    return fail(kUsage, attempt(request), "the running service keeps its data in " + folder,
                "leave out --data-dir, or stop the service to look into another folder");
}

int nothingToReadFrom(const Request& request, const Problem& problem) {
    const std::string start =
        howToStart() + (request.dataDir.empty() ? "; or name the folder of its data with --data-dir" : "");
    return fail(kNoService, attempt(request), "the service is not running, and its data can't be read: " + problem.what,
                problem.next.empty() ? start : problem.next);
}

void noteDataNotRead(const std::string& problem) {
    note("this is what the service alone tells; its data could not be read: " + problem);
}

void noteNoDatabase(const std::string& folder, const char* what) {
    note(folder + " has no database of " + what);
}

void noteContradiction(const std::string& folder) {
    note("the service answers otherwise than the data in " + folder +
         ": it keeps its data elsewhere, or the value has just changed");
}

int valuesUnreadable(const Request& request, const Problem& problem) {
    return fail(
        kRefused, attempt(request), problem.what.empty() ? "some values can't be opened" : problem.what,
        problem.next.empty() ? "the key ring belongs to the databases: restore it from the same backup" : problem.next);
}

int noTrail(const Request& request, const std::string& folder) {
    return fail(kRefused, attempt(request), "there is no trail in " + folder,
                "a service of this version keeps one, unless it was started with --no-audit; see: " + typed("status"));
}

int notAllShown(const Request& request, std::size_t count, const std::string& first) {
    const std::string places = count == 1 ? "a place of the trail" : std::to_string(count) + " places of the trail";
    return fail(kRefused, attempt(request), places + " can't be shown: " + first,
                "see what it proves with: " + typed("log verify"));
}

void noteTrailNow(const std::string& state) {
    note("the service that runs now and its trail: " + state + "; see: " + typed("doctor"));
}

void noteNotShown(const std::string& place) {
    note("can't be shown: " + place);
}

int notAttested(const Request& request, const Problem& keyProblem) {
    return fail(kRefused, attempt(request), "no key attests the trail: " + keyProblem.what,
                keyProblem.next + "; or compare it with a head that was noted, by --head");
}

void noteTrailBegins(std::uint64_t seq) {
    note("the trail is kept from entry " + std::to_string(seq) + " on; what was before was removed with its files");
}

int keyRefused(const Request& request, const Problem& problem) {
    return fail(kRefused, attempt(request), problem.what, problem.next.empty() ? seeItsLog() : problem.next);
}

int rowsLeft(const Request& request, std::size_t count, const std::string& rows) {
    return fail(kRefused, attempt(request),
                std::to_string(count) + (count == 1 ? " row was" : " rows were") + " left as " +
                    (count == 1 ? "it is: " : "they are: ") + rows,
                "see why with: " + typed("check") + "; set or delete what can't be opened, and repeat this");
}

int keyNeeded(const Request& request, const std::string& id, std::size_t count, const std::string& rows) {
    return fail(kRefused, attempt(request),
                "the key " + id + " stays, since " + std::to_string(count) +
                    (count == 1 ? " row needs" : " rows need") + " it: " + rows,
                "seal them with another key by: " + typed("key rotate --reseal"));
}

int noRing(const Request& request, const Problem& problem) {
    return fail(kRefused, attempt(request), problem.what,
                problem.next.empty() ? "see what is wrong with: " + typed("doctor") : problem.next);
}

int noKeyYet(const Request& request) {
    return fail(kRefused, attempt(request), "there is no key ring yet",
                "store a secure value or a policy: the first one makes it");
}

int keysMissing(const Request& request, std::size_t keys) {
    return fail(kRefused, attempt(request),
                std::to_string(keys) + (keys == 1 ? " key is" : " keys are") + " missing that rows need",
                "put back the key ring that has " + std::string(keys == 1 ? "it" : "them") +
                    ", from the backup of the same time; see the rows with: " + typed("check"));
}

void noteResealingGoesOn(const std::string& id) {
    note("an earlier run did not end: it goes on under its key " + id +
         ", and no other is made; repeat this for another");
}

void noteResealingInterrupted() {
    note("what was sealed anew stays so, and all still opens; go on with: " + typed("key rotate --reseal"));
}

void noteOlderBackups() {
    note(
        "a backup that was made before, without its key ring, can't be opened any more: keep one that has the removed "
        "keys, or make a new one");
}

int notTypable(const Request& request) {
    return fail(kUsage, attempt(request),
                "it makes a new recovery code, and there is no terminal to have it typed again on",
                "nothing was changed; say --yes to have it printed when it is in force");
}

void noteStretching() {
    if (::isatty(STDERR_FILENO)) note("a key is made of what was typed, which takes a moment");
}

void noteEarlierCopies() {
    note("a copy of the data folder from before opens what was sealed till now; where there can be one, go on with: " +
         typed("key rotate --reseal"));
}

void noteCodeNotPrinted() {
    note("the new recovery code is in force and was not printed; make another one with: " +
         typed("key protect recovery"));
}

void noteCodeInDoubt() {
    note("the recovery code is in force if the change was made all the same; keep it until it is known: " +
         typed("key slots"));
}

int notRegistered(const Request& request) {
    return fail(kRefused, attempt(request), "the service did not take the registration", seeItsLog());
}

int notUpgraded(const Request& request, const std::string& problem, const std::string& next) {
    return fail(kRefused, attempt(request), problem, "nothing was changed; " + next);
}

int upgradeNeedsForce(const Request& request) {
    return fail(kRefused, attempt(request),
                "nothing was ever copied in this database, and its version would be stamped without copying",
                "copy everything with: " + typed("upgrade --force ") + asArgument(request.key));
}

int upgradeFailed(const Request& request, const std::string& backup) {
    return fail(kRefused, attempt(request), "not everything could be copied; the database as it was is " + backup,
                "see why with -v, and repeat it with --force");
}

int rowsUnfit(const Request& request, std::size_t count, const std::string& backup) {
    const std::string kept = backup.empty() ? "" : "; the database as it was is " + backup;
    return fail(kRefused, attempt(request),
                "keys or values that are too long to be kept: " + std::to_string(count) + kept,
                "standard output names them: shorten or delete their rows, and repeat it before anything is set anew: "
                "each time, what was copied takes the place of newer values");
}

int rowsLost(const Request& request, std::size_t count) {
    return fail(kRefused, attempt(request), "rows whose content can't be carried over: " + std::to_string(count),
                "standard output names them, and upgrade.md (see \"man sdconfig\") the reasons; all others are fine");
}

Problem interrupted() {
    return {"it was interrupted", "repeat it"};
}

int noDataFolder(const Request& request, const Problem& problem) {
    return fail(kRefused, request.command, problem.what,
                problem.next.empty() ? "name the folder as DATA-DIR" : problem.next);
}

int notChecked(const Request& request) {
    const Problem problem = interrupted();
    return fail(kRefused, attempt(request), problem.what, problem.next);
}

int notBackedUp(const Request& request, const Problem& problem) {
    return fail(kRefused, attemptOnFile(request), problem.what, "no backup was made; " + problem.next);
}

void noteTrailLeftOut(const std::string& why) {
    note("the trail is not in the backup: " + why + "; see: " + typed("log verify"));
}

void noteRestoreUntold(const std::string& why) {
    note("the trail has no entry of this restoring: " + why);
}

void noteKeysLeftOut() {
    note("the key ring is left out; nobody opens the sealed values of this backup without it");
}

void noteKeysHandedOver(const std::string& ring) {
    note("the key ring is handed over by the system (" + ring + ") and left out; keep a copy of it");
}

void noteRowsUnreadable(std::size_t count, const std::string& folder) {
    note("values that can't be opened or used: " + std::to_string(count) +
         "; see: " + typed("check " + asArgument(folder)));
}

int notRestored(const Request& request, const Problem& problem) {
    return fail(kRefused, attemptOnFile(request), problem.what, "nothing was changed; " + problem.next);
}

void noteUnproven() {
    note("no key ring of the backup was opened, so nothing proves who made it");
}

void noteSameAsBackup(const std::string& folder, const std::string& made) {
    note(folder + " holds what the backup of " + made + " holds");
}

void noteUnlikeBackup(const std::string& folder, const std::string& made, const std::string& written, bool isNewer) {
    note(folder + (isNewer ? " is newer than the backup: it was changed since " + made + ", last at " + written
                           : " holds something else than the backup of " + made + ", and was last written at " +
                                 written + ", before it"));
}

void noteStateUnknown(const std::string& folder, const std::string& made, const std::string& written,
                      const std::string& why) {
    note("the backup is of " + made + ", and " + folder + " was last written at " + written +
         "; whether they hold the same can't be told: " + why);
}

void noteNoRing(const std::string& folder) {
    note("no key ring opens the sealed values; put it into " + folder + " before the service starts");
}

void noteRingPlain(const std::string& folder) {
    note("the key ring that was in " + folder +
         " was wrapped, and that of the backup is plain: wrap it again with: " + typed("key protect"));
}

void noteRingLocked(const std::string& detail) {
    note("the key ring can't be opened here (" + detail +
         "), so its values were counted alone; once it is in use, open " + "it with: " + typed("key recover") +
         ", which takes its recovery code");
}

void noteNotSealed(std::size_t count, const std::string& folder) {
    note("names of the earlier layout that secure_v3 lacks: " + std::to_string(count) +
         "; they were deleted since, or a copying was cut off: copy everything with: " +
         typed("upgrade --force " + asArgument(folder)));
}

void noteUpgradeUntold(const std::string& why) {
    note("the trail has no entry of the upgrade: " + why);
}

void noteWatching(std::size_t keys, bool more) {
    note("watching " + std::to_string(keys) + (keys == 1 ? " key" : " keys") + (more ? " and those to come" : "") +
         "; Ctrl-C ends it");
}

void noteServiceLost() {
    note("the service is gone; waiting for it to come back");
}

void noteServiceHangs(const std::string& how) {
    note("the service " + how + "; waiting for it to answer again");
}

void noteRestarted(bool registered) {
    const std::string who = registered ? "registered again" : "another client registered the keys again";
    note("the service has been restarted: " + who + "; what changed meanwhile follows");
}

void noteRegisteredAgain() {
    note("another client took the registration back: registered again; what changed meanwhile follows");
}

void noteLeftOut(std::size_t changes) {
    note(std::to_string(changes) + " changes came faster than they could be told and are left out");
}

int misused(const std::string& command, const std::string& happened) {
    return failUse(command, happened, "");
}

int unknownCommand(const std::string& command, const std::string& word, const std::string& meant) {
    return failUse(command, "there is no command " + quoted(word),
                   meant.empty() ? "" : "did you mean: sdconfig " + meant + "? ");
}

int unknownOption(const std::string& command, const std::string& option) {
    return failUse(command, "there is no option " + quoted(option),
                   "put -- before a key or a value that begins with a dash, or ");
}

int tooManyArguments(const std::string& command) {
    return failUse(command, "too many arguments", "put a value that holds blanks in quotation marks, or ");
}

int emptyName(const Request& request, const std::string& argument) {
    return failUse(request.command, argument + " is empty", "");
}

int unfitSecret(const Request& request, const Problem& problem) {
    return fail(kUsage, attempt(request), problem.what, "nothing was changed; " + problem.next);
}

int notExecuted(const Request& request, const std::string& program, int problem) {
    const bool absent = problem == ENOENT;
    const bool tooLarge = problem == E2BIG;
    return fail(absent ? kNoProgram : kNotExecutable, request.command,
                quoted(program) + " can't be run: " + std::strerror(problem),
                absent     ? "check its spelling, and PATH"
                : tooLarge ? "a variable takes less than 128 KiB: give it longer values through a pipe"
                           : "see what it is with: file " + shellWord(program));
}

int notPrinted(const std::string& reason) {
    return fail(kRefused, "printing the result", reason, "check where standard output goes");
}

}  // namespace cli
