// Everything that is said on standard error, and the exit codes. Each message is one line:
// "sdconfig: what was tried: what happened; what to do next".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "apps/common/escaped.h"
#include "apps/sdconfig/request/request.h"

namespace cli {

enum ExitCode : int {
    kDone = 0,
    kRefused = 1,    // unset, not valid, or refused by the service
    kUsage = 2,      // the command line or the input is wrong
    kNoService = 3,  // no service, or no answer from it
    kNotExecutable = 126,
    kNoProgram = 127,
};

// What a command returns instead that only the other program can bring to its end. Nothing was printed, and nothing
// done that can't be done again.
constexpr int kElsewhere = -1;

struct Problem {
    std::string what;  // for a person; "": there is none
    std::string next;  // what to do about it

    explicit operator bool() const { return !what.empty(); }
};

// "sdconfig" and `words`, a command and what follows it, as a person types it to act for the same user.
std::string typed(const std::string& words);

// The same for the command that reaches the manager of the service.
std::string systemctl();

// What to do about a service that isn't there, and one that is not well.
std::string howToStart();
std::string howToRestart();

// Prints the line and returns `code`.
int fail(ExitCode code, const std::string& tried, const std::string& happened, const std::string& next);
void note(const std::string& text);

using apps::escaped;
using apps::quoted;
using apps::shellWord;

// `text` as a word of a command that a person is to type, also where it begins with a dash.
std::string asArgument(const std::string& text);

// What the request tries, with its key where it has one: secure get "k".
std::string attempt(const Request& request);
std::string attemptOnFile(const Request& request);  // with its file: backup "f"

// The service.
// lookedAt: where the service was looked for.
int notRunning(const std::string& tried, const std::string& socketPath, const std::string& lookedAt);
int noAnswer(const std::string& tried, const Problem& problem, const std::string& socketPath);
int callUnanswered(const Request& request);  // this call only
int answerUnreadable(const std::string& tried);

// What a command found.
int unset(const Request& request);
int unopenable(const Request& request);  // something is stored, but not under a key of the ring
int unsetHere(const Request& request);
int nothingListed(const Request& request);  // key: the pattern, "" for all
int noSuchConst(const Request& request);
int notSigned(const Request& request);

// What a success leaves as it was, or hidden.
void noteOutweighed(const std::string& key);
void noteHides(const std::string& key, int priority);
void noteHidden(const std::string& key, bool byValue);  // by a local value, or by an empty local row
void noteStaysInForce(const std::string& key);
void noteLetThrough(int priority);
void noteProperty(const std::string& key);
void noteListedProperties();

// Refused writes.
int setRefused(const Request& request);
int deleteRefused(const Request& request);
int secureWriteRefused(const Request& request);

// Policies.
int policyUnset(const Request& request);
int policyRefused(const Request& request);
int policyGoverned(const Request& request, const std::string& place);  // by a policy of the machine
int policiesGoverned(const Request& request, std::size_t count);       // of a file
void noteGoverned(const std::string& place);                           // what a secure value was set for
int policyStatusUntold(const Request& request);
int policiesLeftOut(const Request& request, std::size_t count);    // folders and files of the machine's policies
int notInstalled(const Request& request, const Problem& problem);  // nothing was changed
int notRemoved(const Request& request, const Problem& problem);    // likewise
void noteUntold(const std::string& user, const std::string& why);  // what a file changes for that one
int notTried(const Request& request, const Problem& problem);      // folders of policies
int triedInPart(const Request& request);
void noteNotTried(const std::string& path, const std::string& why);
void noteGovernsNobody(const std::string& name, const std::string& why);
void notePoliciesStay(std::size_t count);
int policiesRefused(const Request& request);
int notPruned(const Request& request);
int notAskable(const Request& request, const std::string& what);
int notConfirmed(const Request& request);
int unfitPolicy(const Request& request, const Problem& problem);  // of the command line
int policyFileUnread(const Request& request, const std::string& problem);
int unfitPolicyFile(const Request& request, const std::string& problem);  // of a file
int fileNotWritten(const Request& request, const std::string& reason);
int policiesUntold(const Request& request);
int surplusUnknown(const Request& request);
int leftOut(const Request& request, const std::string& what, const std::string& next);
void notePartlySent(std::size_t sent, std::size_t all);
void notePartlyDeleted(std::size_t deleted, std::size_t all);
void noteListCut();
void noteWithoutService(const std::string& folder);

// Descriptions of keys.
int valueMisfit(const Request& request, const Problem& problem);
void noteUndescribed(const std::string& key, const std::string& meant);  // "": no idea
void noteUndescribed(std::size_t count);                                 // of keys
void noteDeprecated(const std::string& key, const std::string& replacedBy);
void noteDescriptionLeftOut(const std::string& file, const std::string& place, const Problem& problem);
int notDescribed(const Request& request, const std::string& meant);
void noteOtherForms(const Request& request, std::size_t count);  // of values of a file
void tellMisfit(const std::string& file, int line, const std::string& uri, const Problem& problem);  // of a policy
int policiesMisfit(const Request& request, std::size_t count);  // nothing was changed

// The data folder.
int dataUnreadable(const Request& request, const Problem& problem);
int otherDataFolder(const Request& request, const std::string& folder);
int nothingToReadFrom(const Request& request, const Problem& problem);
void noteDataNotRead(const std::string& problem);
void noteNoDatabase(const std::string& folder, const char* what);
void noteContradiction(const std::string& folder);
int valuesUnreadable(const Request& request, const Problem& problem);

// The trail.
int noTrail(const Request& request, const std::string& folder);
int notAllShown(const Request& request, std::size_t count, const std::string& first);  // places of it; the first one's
void noteTrailBegins(std::uint64_t seq);
void noteTrailNow(const std::string& state);                         // of the service that runs
void noteNotShown(const std::string& place);                         // while the trail is followed
int notAttested(const Request& request, const Problem& keyProblem);  // since no key is at hand

// Keys.
int keyRefused(const Request& request, const Problem& problem);
int rowsLeft(const Request& request, std::size_t count, const std::string& rows);  // rows: their names, or some
int keyNeeded(const Request& request, const std::string& id, std::size_t count, const std::string& rows);
int noRing(const Request& request, const Problem& problem);
int noKeyYet(const Request& request);
int keysMissing(const Request& request, std::size_t keys);
void noteResealingGoesOn(const std::string& id);
void noteResealingInterrupted();
void noteOlderBackups();

// Slots of the key ring.
int notTypable(const Request& request);  // a recovery code, again
void noteStretching();                   // at a terminal
void noteEarlierCopies();
void noteCodeNotPrinted();
void noteCodeInDoubt();

// Watching.
int notRegistered(const Request& request);
void noteWatching(std::size_t keys, bool more);  // more: and those to come of a pattern
void noteServiceLost();
void noteServiceHangs(const std::string& how);
void noteRestarted(bool registered);  // or another client was faster
void noteRegisteredAgain();
void noteLeftOut(std::size_t changes);

// The upgrade.
int notUpgraded(const Request& request, const std::string& problem, const std::string& next);  // nothing was changed
int upgradeNeedsForce(const Request& request);
int upgradeFailed(const Request& request, const std::string& backup);
int rowsUnfit(const Request& request, std::size_t count, const std::string& backup);  // backup: "" in a dry run
int rowsLost(const Request& request, std::size_t count);
void noteNotSealed(std::size_t count, const std::string& folder);
void noteUpgradeUntold(const std::string& why);  // by an entry of the trail

// Backups.
Problem interrupted();
int noDataFolder(const Request& request, const Problem& problem);
int notChecked(const Request& request);
int notBackedUp(const Request& request, const Problem& problem);
void noteTrailLeftOut(const std::string& why);
void noteKeysLeftOut();
void noteKeysHandedOver(const std::string& ring);
void noteRowsUnreadable(std::size_t count, const std::string& folder);
int notRestored(const Request& request, const Problem& problem);  // nothing was changed
void noteUnproven();
void noteRestoreUntold(const std::string& why);  // by an entry of the trail
// What is replaced. made, written: when the backup was made, and the folder written.
void noteSameAsBackup(const std::string& folder, const std::string& made);
void noteUnlikeBackup(const std::string& folder, const std::string& made, const std::string& written, bool isNewer);
void noteStateUnknown(const std::string& folder, const std::string& made, const std::string& written,
                      const std::string& why);
void noteNoRing(const std::string& folder);

// The one that was there was wrapped.
void noteRingPlain(const std::string& folder);

// The values were counted alone. detail: of the key ring's status.
void noteRingLocked(const std::string& detail);

// Wrong use. command: the command as far as it was understood, "" for none.
int misused(const std::string& command, const std::string& happened);
int unknownCommand(const std::string& command, const std::string& word, const std::string& meant);  // "": no idea
int unknownOption(const std::string& command, const std::string& option);
int tooManyArguments(const std::string& command);

// Input.
int emptyName(const Request& request, const std::string& argument);
int unfitSecret(const Request& request, const Problem& problem);
int notExecuted(const Request& request, const std::string& program, int problem);  // as env(1): 126 or 127

int notPrinted(const std::string& reason);

}  // namespace cli
