// policy status: the machine's policies: what was read when, and what of it is in force.
#include <algorithm>
#include <chrono>

#include "apps/common/time_text.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/machine_table.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

using State = sd::PolicySource::State;

const char* nameOf(State state) {
    switch (state) {
        case State::Read:
            return "read";
        case State::Absent:
            return "absent";
        case State::Masks:
            return "masks";
        case State::Replaced:
            return "replaced";
        case State::LeftOut:
            return "left_out";
        case State::Kept:
            return "kept";
    }
    return "unknown";
}

std::string timeOf(const MachineStatus& status) {
    return apps::timeText(std::chrono::system_clock::to_time_t(status.reading.when));
}

std::string inWords(const sd::PolicySource& source, bool isFile) {
    std::string detail = shownInLine(source.detail);
    switch (source.state) {
        case State::Read:
            return isFile ? std::to_string(source.policies) + (source.policies == 1 ? " policy" : " policies")
                          : "the folder is read";
        case State::Absent:
            return "there is no such folder";
        case State::Masks:
            return "leaves its place empty";
        case State::Replaced:
            return "does not count: in its place stands " + detail;
        case State::LeftOut:
            return "left out: " + detail;
        case State::Kept:
            return "what it held before stays in force: " + detail;
    }
    return detail;
}

std::string textOf(const MachineStatus& status) {
    if (!status.isHere) return "the service goes by no policies of the machine\n";
    std::string text = "read: " + timeOf(status) + (status.byService ? "" : ", by this command") + "\n" +
                       "in force for this user: " + std::to_string(status.governed) + "\n";
    if (status.byService)
        text += std::string("changes are found: ") + (status.isWatching ? "at once" : "within 30 s") + "\n";
    for (const auto& folder : status.reading.folders)
        text += shownInLine(folder.path) + ": " + inWords(folder, false) + "\n";
    for (const auto& file : status.reading.files)
        text += (file.path.empty() ? "" : shownInLine(file.path) + ": ") + inWords(file, true) + "\n";
    for (const auto& [name, why] : status.reading.nobody)
        text += "\"users\" names " + inQuotes(name) + ", which governs nobody: " + shownInLine(why) + "\n";
    return text;
}

Object objectOf(const sd::PolicySource& source, bool isFile) {
    Object object;
    addBytes(object, "path", source.path);
    object["state"] = nameOf(source.state);
    if (isFile) object["policies"] = source.policies;
    if (!source.detail.empty()) addBytes(object, "detail", source.detail);
    return object;
}

Object objectOf(const MachineStatus& status, bool ok) {
    Object object{{"machine", status.isHere}, {"ok", ok}};
    if (!status.isHere) return object;
    object["by_service"] = status.byService;
    object["read"] = timeOf(status);
    object["at_once"] = status.byService ? Object(status.isWatching) : Object();
    object["in_force"] = status.governed;
    for (const char* name : {"folders", "files", "nobody"}) object[name] = Object::array();
    for (const auto& folder : status.reading.folders) object["folders"].push_back(objectOf(folder, false));
    for (const auto& file : status.reading.files) object["files"].push_back(objectOf(file, true));
    for (const auto& [name, why] : status.reading.nobody) {
        Object one;
        addBytes(one, "name", name);
        addBytes(one, "why", why);
        object["nobody"].push_back(std::move(one));
    }
    return object;
}

std::size_t amiss(const sd::PolicyReadingStatus& reading) {
    return static_cast<std::size_t>(std::count_if(reading.folders.begin(), reading.folders.end(), isAmiss) +
                                    std::count_if(reading.files.begin(), reading.files.end(), isAmiss));
}

}  // namespace

int showPolicyStatus(const Request& request, Service& service) {
    if (service.listening())
        if (const int code = service.require()) return code;
    const auto status = machineStatus(service);
    if (!status) return policyStatusUntold(request);
    const std::size_t leftOut = amiss(status->reading);
    const int printed = print(request, textOf(*status), objectOf(*status, leftOut == 0));
    return leftOut == 0 ? printed : policiesLeftOut(request, leftOut);
}

}  // namespace cli
