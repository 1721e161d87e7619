// check: what is wrong in a data folder, and what to do about it.
#include "apps/data/data_check.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/terminal/colour.h"
#include "apps/sdconfig/terminal/interruption.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

std::string report(const std::string& folder, const apps::DataCheck& check) {
    std::string text;
    for (const apps::Finding& finding : check.findings)
        text +=
            coloured("finding", Colour::Bad) + ": " + escaped(finding.what) + "; next: " + escaped(finding.next) + "\n";
    return text + escaped(folder) + ": secure values " + std::to_string(check.secure) + ", policies " +
           std::to_string(check.policies) + ", findings " + std::to_string(check.findings.size()) + "\n";
}

Object objectOf(const apps::Finding& finding) {
    Object object;
    addBytes(object, "file", finding.file);
    if (finding.key) addBytes(object, "key", *finding.key);
    addBytes(object, "what", finding.what);
    addBytes(object, "next", finding.next);
    return object;
}

Object reportObject(const std::string& folder, const apps::DataCheck& check) {
    Object object;
    addBytes(object, "folder", folder);
    object["findings"] = Object::array();
    for (const apps::Finding& finding : check.findings) object["findings"].push_back(objectOf(finding));
    object["secure"] = check.secure;
    object["policies"] = check.policies;
    object["ok"] = check.findings.empty();
    return object;
}

}  // namespace

int checkFolder(const Request& request, Service& service) {
    const DataAccess access = accessFolder(request, service);
    if (!access.reader) return access.exitCode;
    const std::string& folder = access.reader->folder();
    const Interruption interruption;
    const apps::DataCheck check = apps::checkData(folder, interruption.asked());
    if (interruption.came()) return notChecked(request);
    const int printed = print(request, report(folder, check), reportObject(folder, check));
    return check.findings.empty() ? printed : kRefused;
}

}  // namespace cli
