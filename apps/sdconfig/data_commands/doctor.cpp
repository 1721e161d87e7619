// doctor: what is wrong with the service, its surroundings and its data, and what to type next.
#include <algorithm>

#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/doctor/doctor_checks.h"
#include "apps/sdconfig/terminal/colour.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

namespace {

std::string lineOf(const Check& check) {
    const std::string seen = ": " + check.name + ": " + escaped(check.what);
    if (check.ok()) return coloured("ok", Colour::Good) + seen + "\n";
    return coloured("problem", Colour::Bad) + seen + "; next: " + escaped(check.next) + "\n";
}

Object objectOf(const Check& check) {
    Object object{{"check", check.name}, {"ok", check.ok()}};
    addBytes(object, "what", check.what);
    check.ok() ? void(object["next"] = nullptr) : addBytes(object, "next", check.next);
    return object;
}

}  // namespace

int diagnoseService(const Request& request, Service& service) {
    const Checks checks = checkAll(request, service);
    const bool ok = std::all_of(checks.begin(), checks.end(), [](const Check& check) { return check.ok(); });
    std::string text;
    Object object{{"checks", Object::array()}, {"ok", ok}};
    for (const Check& check : checks) {
        text += lineOf(check);
        object["checks"].push_back(objectOf(check));
    }
    const int printed = print(request, text, object);
    return ok ? printed : kRefused;
}

}  // namespace cli
