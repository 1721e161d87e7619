#include "apps/sdconfig/described/described_keys.h"

#include <unistd.h>

#include <filesystem>

#include "descriptions/value_check.h"
#include "policies/policy_value.h"

namespace cli {

namespace {

using sd::KeyStore;

// Why the key is none of the target's.
Problem misplaced(const sd::Descriptions::Found& found, Target target) {
    const sd::KeyDescription& description = found.description;
    const std::string place = ", by its description in " + placeOf(found);
    if (target == Target::Property && description.store == KeyStore::Secure)
        return {"the key is one of a secure value" + place, "use: " + typed("secure set")};
    if (target == Target::Secure && description.store == KeyStore::Property)
        return {"the key is one of a property" + place, "use: " + typed("set")};
    if (target != Target::Policy || description.isGovernable) return {};
    if (description.store == KeyStore::Property)
        return {"the key is one of a property, which no policy governs" + place, "name a key of a secure value"};
    return {"no policy may govern the key" + place, "leave it to its user"};
}

}  // namespace

sd::Descriptions describedKeys(const Request& request) {
    std::vector<sd::DescriptionFolder> folders = sd::standardDescriptionFolders();
    for (const std::string& folder : request.keysDirs)
        folders.push_back({std::filesystem::absolute(folder).lexically_normal(), ::geteuid()});
    return sd::Descriptions(folders);
}

void noteLeftOut(const sd::Descriptions& descriptions) {
    for (const auto& [file, fault] : descriptions.leftOut())
        noteDescriptionLeftOut(file, fault.place(), {fault.what, fault.remedy});
}

std::string placeOf(const sd::Descriptions::Found& found) {
    return found.file + ", line " + std::to_string(found.description.line);
}

Problem misfit(const sd::Descriptions::Found& found, Target target, std::string& value) {
    if (Problem problem = misplaced(found, target)) return problem;
    sd::CheckedValue checked = sd::checkValue(found.description, value);
    if (!checked.fits())
        return {(found.description.isSecret ? "the value" : apps::quoted(value)) + " " + checked.what, checked.remedy};
    const std::string unfit = target == Target::Policy ? sd::unfitPolicyValue(checked.stored) : "";
    if (!unfit.empty()) return {"the form that would be stored " + unfit, "give another value"};
    value = std::move(checked.stored);
    return {};
}

}  // namespace cli
