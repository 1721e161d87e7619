// explain: where the value of a key comes from, among the secure values and among the properties.
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/described/described_keys.h"
#include "apps/sdconfig/described/description_output.h"
#include "apps/sdconfig/policy/effective.h"
#include "apps/sdconfig/properties/property_files.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/reading/stored_layers.h"
#include "apps/sdconfig/request/read_only_key.h"
#include "apps/sdconfig/service/policy_calls.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "apps/sdconfig/trail/key_history.h"
#include "descriptions/value_check.h"
#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"

namespace cli {

namespace {

// What the key's description says of its value.
struct Described {
    sd::Descriptions::Found found;
    bool isDefault = false;  // nothing is set, and programs go by the default
    Problem misfit;          // why the value is none of the key's
};

// What is known of the key, and by whom.
struct Findings {
    std::optional<Effective> answer;  // the service's
    std::optional<Layers> layers;     // the data folder's
    std::optional<apps::MachinePolicy> machine;
    std::string folder;
    Effective effective{"", sd::kLocalPriority, Origin::Unset};

    std::optional<std::string> property;  // the service's
    std::string productDir;               // "": none, or it isn't known
    FileValue fromFiles;
    std::optional<Described> described;

    KeyHistory history;  // of all of these
};

int askService(const Request& request, Service& service, Findings& found) {
    const auto policy = service.call("GetPolicyWithUri key", request.key,
                                     [&] { return sd::DMConfig::GetInstance()->GetPolicyWithUri(request.key); });
    if (policy.exitCode) return policy.exitCode;
    found.answer = answered(policy.result);
    const auto property = service.call("GetProperty the key", request.key,
                                       [&] { return sd::SDConfig::GetInstance()->GetProperty(request.key); });
    found.property = property.result;
    return property.exitCode;
}

MachineTable machineOf(const std::string& key, bool listening, const Service& service) {
    if (!listening) return machineTable(service);
    const auto one = governing(service, key);
    return one ? MachineTable({*one}) : MachineTable();
}

// Returns what hindered the reading, or "".
std::string readData(const Request& request, const DataAccess& access, MachineTable machine, Findings& found) {
    if (!access.reader) return "the folder is not known";
    StoredLayers stored;
    if (std::string problem = stored.read(*access.reader, request.key); !problem.empty()) return problem;
    stored.governBy(std::move(machine));
    found.layers = stored.of(request.key);
    found.folder = access.reader->folder();
    return "";
}

int gather(const Request& request, Service& service, Findings& found) {
    const Probe probe = service.probe();
    if (probe.listening && !probe.answered) return noAnswer(attempt(request), probe.how, service.socketPath());
    const DataAccess access = accessData(request, service);
    if (access.exitCode) return access.exitCode;
    if (probe.listening)
        if (const int code = askService(request, service, found)) return code;
    MachineTable machine = machineOf(request.key, probe.listening, service);
    found.machine = machine.find(request.key);
    const std::string problem = readData(request, access, std::move(machine), found);
    if (!problem.empty() && !probe.listening) return nothingToReadFrom(request, problemOfData(access, problem));
    if (!problem.empty()) noteDataNotRead(problem);
    if (problem.empty() && !probe.listening) noteMissingDatabases(*access.reader);
    if (access.reader) found.history = historyOf(access.reader->folder(), request.key);
    const bool ofService = request.productDir.empty() && probe.listening;
    found.productDir = ofService ? service.productFolder() : request.productDir;
    found.fromFiles = propertyFromFiles(request.key, found.productDir);

    found.effective = found.layers ? weigh(*found.layers) : *found.answer;
    if (found.layers && found.answer && !agree(*found.layers, *found.answer)) {
        noteContradiction(found.folder);
        found.effective = *found.answer;
    }
    return kDone;
}

// ---- The secure value ----

// What is left when the policy goes that counts.
Effective withoutPolicy(Layers layers) {
    if (layers.machine)
        layers.machine.reset();
    else
        layers.policy.reset();
    return weigh(layers);
}

std::string hidden(const std::string& value, bool show) {
    return show ? inQuotes(value) : "set (--show shows it)";
}

std::string policyText(const apps::Policy& policy, bool show) {
    const std::string priority = "priority " + std::to_string(policy.priority) + ", ";
    return priority + (policy.value.empty() ? "no value" : hidden(policy.value, show));
}

std::string policyText(const Layers& layers, bool show) {
    if (layers.policyUnreadable) return "there is one, and it can't be read: it " + layers.policyFault;
    return layers.policy ? policyText(*layers.policy, show) : "none";
}

// Of a policy of a file, which may be told where the rest can't be.
std::string machineText(const apps::MachinePolicy& machine, bool show) {
    const std::string text = "  policy of the machine: " + policyText(machine.policy, show) +
                             "\n    it stands in: " + shownInLine(machine.place()) + "\n";
    return machine.description.empty() ? text : text + "    description: " + shownInLine(machine.description) + "\n";
}

std::string localText(const Layers& layers, bool show) {
    switch (layers.row) {
        case Layers::Row::Value:
            return hidden(layers.local, show);
        case Layers::Row::Empty:
            return std::string("an empty row") +
                   (layers.rowHidesPolicy ? "" : " in another letter case, which hides no policy");
        case Layers::Row::Unreadable:
            return "a row that reads as empty: it " + layers.rowFault;
        default:
            return "none";
    }
}

const char* localName(Layers::Row row) {
    static constexpr const char* kNames[] = {"none", "empty", "value", "unreadable"};
    return kNames[static_cast<std::size_t>(row)];
}

std::string secureText(const Request& request, const Findings& found) {
    const Effective& effective = found.effective;
    const auto policy = found.layers ? found.layers->counting() : std::nullopt;
    std::string text = std::string("secure value: ") + (effective.value.empty() ? "not set" : "set") + ": " +
                       inWords(request.key, effective, policy) + "\n";
    if (!effective.value.empty()) text += "  value: " + hidden(effective.value, request.show) + "\n";
    if (found.machine) text += machineText(*found.machine, request.show);
    const std::string stored = found.machine ? "  stored policy" : "  policy";
    if (!found.layers) return text + stored + ", local value: the data folder would tell\n";
    text += stored + ": " + policyText(*found.layers, request.show) + "\n";
    text += "  local value: " + localText(*found.layers, request.show) + "\n";
    if (policy) {
        const Effective rest = withoutPolicy(*found.layers);
        const bool isLocal = rest.origin == Origin::Local;
        text += std::string("  without the policy") + (found.machine ? " of the machine: " : ": ") +
                (rest.value.empty() ? "not set"
                 : isLocal          ? "the local value"
                                    : "the stored policy's value") +
                "\n";
    }
    return text;
}

void addSecret(Object& object, const char* name, const std::string& value, bool show) {
    if (show && !value.empty()) addBytes(object, name, value);
}

Object policyObject(const Layers& layers, bool show) {
    if (layers.policyUnreadable) return {{"readable", false}, {"fault", layers.policyFault}};
    if (!layers.policy) return nullptr;
    Object object{{"readable", true}, {"priority", layers.policy->priority}, {"set", !layers.policy->value.empty()}};
    addSecret(object, "value", layers.policy->value, show);
    return object;
}

Object machineObject(const apps::MachinePolicy& machine, bool show) {
    Object object{{"priority", machine.policy.priority}, {"set", !machine.policy.value.empty()}};
    addSecret(object, "value", machine.policy.value, show);
    addBytes(object, "file", machine.file);
    object["line"] = machine.line;
    if (!machine.description.empty()) addBytes(object, "description", machine.description);
    return object;
}

Object layersObject(const Layers& layers, bool show) {
    Object local{{"row", localName(layers.row)}};
    if (layers.row == Layers::Row::Unreadable) local["fault"] = layers.rowFault;
    addSecret(local, "value", layers.local, show);
    const Effective rest = withoutPolicy(layers);
    return {{"machine", layers.machine ? machineObject(*layers.machine, show) : Object()},
            {"policy", policyObject(layers, show)},
            {"local", local},
            {"without_policy", {{"set", !rest.value.empty()}, {"origin", nameOf(rest.origin)}}}};
}

Object secureObject(const Request& request, const Findings& found) {
    const Effective& effective = found.effective;
    Object object{
        {"set", !effective.value.empty()}, {"origin", nameOf(effective.origin)}, {"priority", effective.priority}};
    addSecret(object, "value", effective.value, request.show);
    object["layers"] = found.layers ? layersObject(*found.layers, request.show) : Object();
    return object;
}

// ---- The property ----

PropertyOrigin propertyOrigin(const Findings& found) {
    return originOf(found.property, found.fromFiles.value);
}

std::string propertyWords(const Findings& found) {
    switch (propertyOrigin(found)) {
        case PropertyOrigin::File:
            return "set: " + (found.fromFiles.file.empty() ? "a build.prop file" : shownInLine(found.fromFiles.file)) +
                   " gives it";
        case PropertyOrigin::Service:
            return std::string("set: since the service started") +
                   (found.productDir.empty() ? ", or by a product's build.prop that --product-dir would name" : "");
        case PropertyOrigin::Deleted:
            return "not set: " + shownInLine(found.fromFiles.file) +
                   " gives it a value, but the service has none (any more)";
        default:
            return "not set";
    }
}

std::string propertyText(const Request& request, const Findings& found) {
    const std::string value = found.property.value_or(found.fromFiles.value);
    std::string text = "property: " + propertyWords(found) + "\n";
    if (!value.empty()) text += "  value: " + inQuotes(value) + "\n";
    if (!isReadOnlyKey(request.key)) return text;
    return text + (value.empty() ? "  read-only once it has a value\n" : "  read-only\n");
}

Object propertyObject(const Request& request, const Findings& found) {
    static constexpr const char* kOrigins[] = {"unset", "file", "service", "deleted"};
    const std::string value = found.property.value_or(found.fromFiles.value);
    Object object{{"set", !value.empty()}, {"origin", kOrigins[static_cast<std::size_t>(propertyOrigin(found))]}};
    if (!value.empty()) addBytes(object, "value", value);
    object["file"] = nullptr;
    if (!found.fromFiles.file.empty()) {
        object.erase("file");
        addBytes(object, "file", found.fromFiles.file);
    }
    object["read_only"] = isReadOnlyKey(request.key) && !value.empty();
    return object;
}

// ---- The description ----

void describe(const Request& request, Findings& found) {
    sd::Descriptions descriptions = describedKeys(request);
    const auto description = descriptions.find(request.key);
    noteLeftOut(descriptions);
    if (!description) {
        if (const std::string near = descriptions.near(request.key); !near.empty()) noteUndescribed(request.key, near);
        return;
    }
    const bool isSecure = description->description.store == sd::KeyStore::Secure;
    const std::string value = isSecure ? found.effective.value : found.property.value_or(found.fromFiles.value);
    const sd::CheckedValue checked = sd::checkValue(description->description, value);
    found.described = Described{*description, value.empty() && description->description.defaultValue, {}};
    if (!checked.fits()) found.described->misfit = {"the value " + checked.what, checked.remedy};
}

std::string describedText(const Described& described) {
    const sd::KeyDescription& description = described.found.description;
    const std::string summary = localWords(description).summary;
    std::string text = "description: " + (summary.empty() ? "" : shownInLine(summary) + "; ") +
                       shownInLine(sd::inWords(description)) +
                       "\n  it stands in: " + shownInLine(placeOf(described.found)) + "\n";
    if (description.defaultValue)
        text += "  default: " + inQuotes(*description.defaultValue) +
                (described.isDefault ? ", which programs take, as nothing is set\n" : "\n");
    if (described.misfit)
        text += "  misfit: " + escaped(described.misfit.what) + "; next: " + escaped(described.misfit.next) + "\n";
    return text;
}

Object describedObject(const Request& request, const Described& described) {
    Object object = objectOf(described.found, request.key);
    object["default_counts"] = described.isDefault;
    object["misfit"] = described.misfit ? Object(described.misfit.what) : Object();
    return object;
}

}  // namespace

int explainKey(const Request& request, Service& service) {
    Findings found;
    if (const int code = gather(request, service, found)) return code;
    describe(request, found);
    Object object;
    addBytes(object, "key", request.key);
    object["secure"] = secureObject(request, found);
    object["property"] = propertyObject(request, found);
    object["service"] = found.answer.has_value();
    object["data_folder"] = nullptr;
    if (found.layers) {
        object.erase("data_folder");
        addBytes(object, "data_folder", found.folder);
    }
    if (found.described) object["description"] = describedObject(request, *found.described);
    if (found.history.from > 0) object["changes"] = objectOf(found.history);
    return print(request,
                 secureText(request, found) + propertyText(request, found) +
                     (found.described ? describedText(*found.described) : "") + textOf(found.history),
                 object);
}

}  // namespace cli
