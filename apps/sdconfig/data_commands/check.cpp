// check: what is wrong in a data folder, and what to do about it.
#include <optional>

#include "apps/common/digest_text.h"
#include "apps/data/data_check.h"
#include "apps/data/data_digest.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/terminal/colour.h"
#include "apps/sdconfig/terminal/interruption.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

// What is told of the state besides the findings; what can't be told becomes one.
struct State {
    std::optional<std::string> digest;
    bool isAsNoted = false;
};

State stateOf(const Request& request, const std::string& folder, const apps::Stop& stop,
              std::vector<apps::Finding>& findings) {
    State state;
    if (request.digest) {
        const apps::DataDigest now = apps::digestOf(folder, "", stop);
        if (now.problem.empty())
            state.digest = now.text;
        else
            findings.push_back({folder, "no digest can be made: " + now.problem,
                                "see to the other findings; the first value that is set makes a key ring"});
    }
    if (request.against.empty()) return state;
    // One under the same key was made already.
    const bool isMade = state.digest && apps::keyIdOfDigest(*state.digest) == apps::keyIdOfDigest(request.against);
    const apps::DataDigest now =
        isMade ? apps::DataDigest{*state.digest, ""} : apps::digestOf(folder, request.against, stop);
    state.isAsNoted = now.text == request.against;
    if (!now.problem.empty())
        findings.push_back({folder, "it can't be told whether the folder holds what was noted: " + now.problem,
                            "take a digest that was noted under a key of this ring"});
    else if (!state.isAsNoted)
        findings.push_back({folder, "the folder does not hold what was noted",
                            "find who changed it since, or restore a backup from then"});
    return state;
}

std::string report(const Request& request, const std::string& folder, const apps::DataCheck& check,
                   const State& state) {
    std::string text;
    for (const apps::Finding& finding : check.findings)
        text +=
            coloured("finding", Colour::Bad) + ": " + escaped(finding.what) + "; next: " + escaped(finding.next) + "\n";
    text += escaped(folder) + ": secure values " + std::to_string(check.secure) + ", policies " +
            std::to_string(check.policies) + ", findings " + std::to_string(check.findings.size()) + "\n";
    if (state.digest) text += "digest " + *state.digest + "\n";
    if (!request.against.empty() && state.isAsNoted) text += "it holds what was noted\n";
    return text;
}

Object objectOf(const apps::Finding& finding) {
    Object object;
    addBytes(object, "file", finding.file);
    if (finding.key) addBytes(object, "key", *finding.key);
    addBytes(object, "what", finding.what);
    addBytes(object, "next", finding.next);
    return object;
}

Object reportObject(const Request& request, const std::string& folder, const apps::DataCheck& check,
                    const State& state) {
    Object object;
    addBytes(object, "folder", folder);
    object["findings"] = Object::array();
    for (const apps::Finding& finding : check.findings) object["findings"].push_back(objectOf(finding));
    object["secure"] = check.secure;
    object["policies"] = check.policies;
    if (request.digest) object["digest"] = state.digest ? Object(*state.digest) : Object(nullptr);
    if (!request.against.empty()) object["as_noted"] = state.isAsNoted;
    object["ok"] = check.findings.empty();
    return object;
}

}  // namespace

int checkFolder(const Request& request, Service& service) {
    const DataAccess access = accessFolder(request, service);
    if (!access.reader) return access.exitCode;
    const std::string& folder = access.reader->folder();
    const Interruption interruption;
    apps::DataCheck check = apps::checkData(folder, interruption.asked());
    const State state = stateOf(request, folder, interruption.asked(), check.findings);
    if (interruption.came()) return notChecked(request);
    const int printed =
        print(request, report(request, folder, check, state), reportObject(request, folder, check, state));
    return check.findings.empty() ? printed : kRefused;
}

}  // namespace cli
