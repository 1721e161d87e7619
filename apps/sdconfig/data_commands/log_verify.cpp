// log verify, log head: whether the trail is as it was written, and what attests it later.
#include "apps/common/time_text.h"
#include "apps/data/trail_check.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/slots/opened_ring.h"
#include "apps/sdconfig/terminal/colour.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "trail/reader.h"

namespace cli {

namespace {

using sd::trail::Verdict;

std::string textOf(const Request& request, const apps::TrailCheck& check, bool attested) {
    const Verdict& found = check.verdict;
    const std::string entries = "entries " + std::to_string(found.first) + " to " + std::to_string(found.head.seq);
    if (check.finding) {
        const std::string sound = found.lines > 0 ? "before it, " + entries + " belong together\n" : "";
        return coloured("finding", Colour::Bad) + ": " + escaped(check.finding->what) +
               "; next: " + escaped(check.finding->next) + "\n" + sound;
    }
    std::string text = coloured("ok", Colour::Good) + ": " + entries + ", since " +
                       apps::timeText(found.since / 1'000'000) + ", are as they were written\n";
    if (!request.head.empty()) text += "all that the head attests is there\n";
    if (!attested) text += "no key attests what came after the head\n";
    return text;
}

Object objectOf(const std::string& folder, const apps::TrailCheck& check) {
    const Verdict& found = check.verdict;
    Object object;
    addBytes(object, "folder", folder);
    object["entries"] = found.lines;
    object["first"] = found.lines > 0 ? Object(found.first) : Object();
    object["head"] = found.lines > 0 ? Object(headText(found.head)) : Object();
    object["attested"] = found.attested > 0 ? Object(found.attested) : Object();
    object["finding"] = nullptr;
    if (check.finding) {
        Object finding;
        addBytes(finding, "file", check.finding->file);
        finding["line"] = found.number > 0 ? Object(found.number) : Object();
        addBytes(finding, "what", check.finding->what);
        addBytes(finding, "next", check.finding->next);
        object["finding"] = finding;
    }
    object["ok"] = !check.finding;
    return object;
}

}  // namespace

int verifyLog(const Request& request, Service& service) {
    const auto head = sd::trail::headOf(request.head);
    if (!request.head.empty() && !head)
        return misused(request.command, "--head: " + quoted(request.head) + " is no head that \"log head\" printed");
    int exitCode = kDone;
    const auto folder = folderToRead(request, service, exitCode);
    if (!folder) return exitCode;
    // Without a key the lines tell only that they belong together, as anybody's would; a head holds those up to it.
    const Problem locked = openRingOf(*folder);
    if (locked && !head) return notAttested(request, locked);
    const apps::TrailCheck check = apps::checkTrail(*folder, locked ? sd::trail::Digest() : apps::ringDigest(), head);
    if (!check.finding && check.verdict.lines == 0) return noTrail(request, *folder);
    const int printed = print(request, textOf(request, check, !locked), objectOf(*folder, check));
    return check.finding ? static_cast<int>(kRefused) : printed;
}

int printLogHead(const Request& request, Service& service) {
    int exitCode = kDone;
    const auto folder = folderToRead(request, service, exitCode);
    if (!folder) return exitCode;
    sd::trail::Reader reader(*folder, sd::trail::Order::NewestFirst);
    sd::trail::Line last;
    if (!reader.next(last)) return noTrail(request, *folder);
    if (!last.problem.empty()) return notAllShown(request, 1, last.file + ", its end, " + last.problem);
    const std::string head = headText(sd::trail::Head{last.entry.seq, sd::trail::lineDigest(last.text)});
    return print(request, head + "\n", {{"head", head}});
}

}  // namespace cli
