// What a report tells, gathered before a line of the page is written. What is not to be seen is not in it.
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "apps/sdconfig/doctor/doctor_checks.h"
#include "apps/sdconfig/properties/property_files.h"
#include "apps/sdconfig/reading/machine_table.h"

namespace cli {

// A value as the report may have it. What is sealed at rest is hidden, whether it was set locally or by a policy; what
// every user of the machine can read in a file is not.
struct ReportedValue {
    enum class Kind { None, Hidden, Shown };

    Kind kind = Kind::None;
    std::string text{};
};

// What gives a key its value, or leaves it without.
enum class Source {
    Machine,      // a policy of the machine
    Policy,       // a stored policy
    Local,        // a secure value
    HiddenByRow,  // an empty local row hides a policy
    Unclear,      // the service alone tells no more
    File,         // a build.prop file
    Running,      // a property that the service was given since it started
    Deleted,      // a property of a file that the service has no more
    Unset,
};
inline constexpr std::size_t kSources = 9;

struct ReportedChange {
    std::string when;
    std::string who;
};

// What a key is for, by its description.
struct ReportedDescription {
    std::string summary;                 // in the language of the environment
    std::string values;                  // what a value may be; "": any text
    std::optional<std::string> usually;  // the default
    std::string misfit;                  // why the value is none of the key's; "": it is, or there is none
};

struct ReportedKey {
    std::string key;
    bool isProperty = false;
    ReportedValue value;
    Source source = Source::Unset;
    std::string why;          // "": the source says it all
    std::string place;        // the file and the line that give the value, or that of a policy
    std::string description;  // of the policy
    std::optional<ReportedDescription> described{};
    std::vector<std::string> lost;  // the layers that lost, a sentence each, and why
    bool isReadOnly = false;
    std::optional<ReportedChange> change;
    std::optional<int> listeners;  // nothing: the service doesn't tell
};

// One side of what would change.
struct ReportedSide {
    ReportedValue value;
    Source source = Source::Unset;
    std::string why;
};

struct ReportedPlan {
    std::string key;
    ReportedSide today;
    ReportedSide then;
};

// What policies would bring about, were they the machine's.
struct WhatIf {
    std::vector<std::string> files;
    std::vector<ReportedPlan> changes;
    std::size_t unchanged = 0;                                   // keys that they govern and that stay as they are
    std::vector<std::pair<std::string, std::string>> leftOut{};  // files, or names of users, and why
    std::string problem{};                                       // why nothing can be told; else ""
};

// What the report could not see, and how to let it.
struct Unseen {
    std::string what;
    std::string next;
};

// A line of the trail.
struct ReportedEntry {
    std::size_t number;
    std::string when;
    std::string deed;
    bool isAmiss;
    std::optional<std::string> key;
    bool isProperty;
    std::string doer;
};

// A key's name in a report, which a property may share with nothing else.
std::string nameOf(const std::string& key, bool isProperty);

struct Report {
    std::string title;
    std::string made;  // when
    bool holdsSecrets = false;

    std::vector<std::string> words;  // the summary, a sentence each
    Checks checks;
    std::vector<Unseen> unseen;

    std::optional<WhatIf> whatIf;
    std::vector<ReportedKey> keys;  // settings and then properties, in the order of their names
    std::set<std::string> names;    // of all keys (nameOf)

    std::optional<MachineStatus> machine;
    MachineTable policies;
    std::vector<PropertyFile> propertyFiles;

    std::vector<ReportedEntry> trail;  // the latest ones, newest first

    std::vector<std::pair<std::string, std::string>> environment;

    std::size_t problems() const;
};

}  // namespace cli
