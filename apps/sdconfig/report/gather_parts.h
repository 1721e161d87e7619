// What the pieces of the gathering share. For its own files only.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "apps/sdconfig/described/described_keys.h"
#include "apps/sdconfig/reading/stored_layers.h"
#include "apps/sdconfig/report/report.h"
#include "apps/sdconfig/service/service.h"

namespace cli {

// What a report may have of values.
class Visibility {
public:
    explicit Visibility(bool showsAll) : mShowsAll(showsAll) {}

    ReportedValue of(const Effective& effective, const std::optional<apps::MachinePolicy>& machine);
    ReportedValue ofProperty(const std::string& value) const;

    // Of a file of policies: the user brought it.
    void show(const std::string& file) { mPublic[file] = true; }

private:
    bool isPublic(const std::string& file);

    const bool mShowsAll;
    std::map<std::string, bool> mPublic;  // by the file: whether every user may read it
};

// The latest change of each key, by the trail.
struct History {
    std::map<std::string, ReportedChange> settings;  // by the key without letter case
    std::map<std::string, ReportedChange> properties;
};

struct Gathering {
    Gathering(const Request& asked, Service& answering, const DataAccess& found, Report& made)
        : request(asked),
          service(answering),
          access(found),
          report(made),
          descriptions(::cli::describedKeys(asked)),
          visibility(asked.show) {}

    const Request& request;
    Service& service;
    const DataAccess& access;
    Report& report;

    sd::Descriptions descriptions;
    std::map<std::string, sd::KeyStore> described;  // the keys that get a line, whatever is set
    Visibility visibility;
    Probe probe;
    StoredLayers stored;
    bool isStoredKnown = false;
    std::string productDir;
    std::optional<std::map<std::string, int>> listeners;  // by the key, as clients spell it
    History history;

    void miss(const std::string& what, const std::string& next) const { report.unseen.push_back({what, next}); }

    // A point in time for a person: "2026-11-25 23:57 UTC". seconds: since 1970.
    static std::string momentOf(std::int64_t seconds);
};

// Each fills its part of the report, in this order, since some need what earlier ones found.
void gatherDescribed(Gathering& gathering);
void gatherTrail(Gathering& gathering);
void gatherSettings(Gathering& gathering);
void gatherProperties(Gathering& gathering);
void gatherPlan(Gathering& gathering);
void gatherEnvironment(Gathering& gathering);
void putInWords(Gathering& gathering);

// Adds what the description of the key says of it and of its value, which the report may not have.
void describe(Gathering& gathering, const std::string& value, ReportedKey& one);

// What gives the value, and the layers that lost.
Source sourceOf(const Effective& effective, bool isOfMachine);
std::string whyOf(const std::string& key, const Effective& effective, const Layers& layers);

}  // namespace cli
