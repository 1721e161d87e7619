#include "tests/torture/service_model.h"

#include <algorithm>
#include <tuple>

namespace torture {
namespace {

// Each byte beyond ASCII is kept as the character of that number.
std::string doubled(const std::string& text) {
    std::string utf8;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80) utf8 += static_cast<char>(0xc0 | byte >> 6);
        utf8 += static_cast<char>(byte >= 0x80 ? 0x80 | (byte & 0x3f) : byte);
    }
    return utf8;
}

std::string lower(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z') c += 'a' - 'A';
    return text;
}

bool isReadOnly(const std::string& key) {
    return key.compare(0, 3, "ro.") == 0;
}

bool isOfRelease(const std::string& key) {
    return key == "ro.sd.build.version" || key == "ro.sd.product.channel" || key == "ro.velmar.switch.env";
}

std::string valueIn(const std::map<std::string, std::string>& values, const std::string& key) {
    const auto found = values.find(key);
    return found == values.end() ? "" : found->second;
}

}  // namespace

// ---- Steps ----

std::string shown(const std::string& text) {
    return "\"" + (text.size() > 40 ? text.substr(0, 20) + "... (" + std::to_string(text.size()) + ")" : text) + "\"";
}

std::string shown(const Step& step) {
    std::string text = step.method + " by " + std::to_string(step.client);
    for (const std::string& one : step.texts) text += " " + shown(one);
    for (const int one : step.numbers) text += " " + std::to_string(one);
    return text + (step.flag ? " true" : " false");
}

bool takesList(const std::string& method) {
    return method == "SET_POLICYLIST" || method == "DM_GET_POLICIES" || method == "ISALREADY_LISTHENED" ||
           method == "DM_REGISTER_LISTERNER";
}

void appendArguments(SDBusMessage& call, const Step& step) {
    if (step.method.compare(0, 4, "KEY_") == 0) return call.appendBool(step.flag);
    const bool isList = takesList(step.method);
    const bool isPolicies = step.method == "SET_POLICYLIST";
    const bool isListening = step.method == "REG_LISTENER" || step.method == "UNREG_LISTENER";
    if (isList) call.appendInt8(static_cast<int8_t>(isPolicies ? step.numbers.size() : step.texts.size()));
    for (std::size_t i = 0; i < step.texts.size(); ++i) {
        call.appendString(step.texts[i]);
        if (isPolicies && i % 2 == 1) call.appendInt8(static_cast<int8_t>(step.numbers[i / 2]));
        if (isListening) break;
    }
    if (step.method == "SET_POLICY") call.appendInt8(static_cast<int8_t>(step.numbers[0]));
    if (isListening || step.method == "DM_REGISTER_LISTERNER") call.appendBool(step.flag);
}

std::string productLine(const Step& step) {
    const std::string line = step.texts[0] + (step.flag ? " = " : "=") + step.texts[1] + "\n";
    const bool isComment = step.method == "constant" && step.texts[0].empty();  // the service takes none without a name
    return isComment ? "#" + line : line;
}

std::vector<Step> Generator::history(int length) {
    std::vector<Step> steps(static_cast<std::size_t>(length));
    std::generate(steps.begin(), steps.end(), [this] { return step(); });
    return steps;
}

const std::vector<std::string>& Generator::keys() {
    static const std::vector<std::string> kKeys{"",  "k", "K",       "net.proxy",  "Net.Proxy",          "other",
                                                "ä", "Ä", "ro.once", "ro.sd.uuid", "ro.sd.build.version"};
    return kKeys;
}

std::string Generator::value() {
    static const std::vector<std::string> kValues{
        "", "a", "a", "b", "null_value", "x&&&7", "5", "&&&", "Grüße", std::string(3000, 'v'), "7"};
    return one(kValues);
}

int Generator::priority() {
    static const std::vector<int> kPriorities{0, 4, 5, 6, 10, 127, -1};
    return one(kPriorities);
}

Step Generator::step() {
    Step step;
    step.method = method();
    step.client = below(mClients);
    step.flag = below(2) == 1;
    const bool isList = takesList(step.method);
    for (std::size_t count = isList ? below(4) : 1; count > 0; --count) {
        step.texts.push_back(key());
        if (step.method == "SET_POLICYLIST") step.texts.push_back(value());
        step.numbers.push_back(priority());
    }
    if (!isList) step.texts.push_back(value());
    return step;
}

// ---- The model ----

bool NoCase::operator()(const std::string& a, const std::string& b) const {
    return lower(a) < lower(b);
}

Fields fieldsOf(SDBusMessage& message) {
    Fields fields;
    const std::string kinds = message.signature();
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        const int at = static_cast<int>(i);
        fields.push_back(kinds[i] == 's'   ? message.getString(at)
                         : kinds[i] == 'b' ? yes(message.getBool(at))
                         : kinds[i] == 'y' ? std::to_string(message.getInt(at))
                                           : std::to_string(message.getInt32(at)));
    }
    return fields;
}

std::string yes(bool value) {
    return value ? "true" : "false";
}

const std::vector<Model::Method>& Model::methods() {
    static const std::vector<Method> kMethods{
        {"SET_SECURE", 3, &Model::setSecure},
        {"DEL_SECURE", 1, &Model::deleteSecure},
        {"GET_SECURE", 2, &Model::getSecure},
        {"SET_POLICY", 3, &Model::setPolicies},
        {"SET_POLICYLIST", 1, &Model::setPolicies},
        {"DELETE_POLICY", 1, &Model::deletePolicy},
        {"GET_POLICY", 2,
         [](Model& model, const Step& step) {
             const Weighed now = model.effective(step.texts[0]);
             return Fields{now.value, std::to_string(now.priority)};
         }},
        {"DM_GET_POLICIES", 1, &Model::getPolicies},
        {"DM_LIST", 1, &Model::listPolicies},
        {"DM_CLEAR_ALL_KEYS", 1, &Model::clearPolicies},
        {"ISSTRONG_CONTROL", 1,
         [](Model& model, const Step& step) { return Fields{yes(model.effective(step.texts[0]).isStrong())}; }},
        {"SET_PROPERTY", 1, &Model::setProperty},
        {"DEL_PROPERTY", 1, &Model::deleteProperty},
        {"GET_PROPERTY", 1, [](Model& model, const Step& step) { return Fields{model.property(step.texts[0])}; }},
        {"LST_PROPERTY", 1, [](Model&, const Step&) { return Fields{"0"}; }},  // whatever is set
        {"REG_LISTENER", 2,
         [](Model& model, const Step& step) {
             model.listen(step.texts[0], step.flag);
             return Fields{yes(true)};
         }},
        {"DM_REGISTER_LISTERNER", 1, &Model::registerListeners},
        {"UNREG_LISTENER", 1, &Model::unregisterListener},
        {"ISALREADY_LISTHENED", 1, &Model::isListened},
        {"LISTENERS_LIST", 1, &Model::listListeners},
        {"GET_CONST", 1,
         [](Model& model, const Step& step) { return Fields{valueIn(model.mConstants, step.texts[0])}; }},
        {"SIGN_REQUEST", 1, [](Model&, const Step& step) { return Fields{step.texts[0]}; }},
        {"VERIFY_SIGN", 1, [](Model&, const Step&) { return Fields{yes(true)}; }},
    };
    return kMethods;
}

std::vector<std::string> Model::weightedMethods() {
    std::vector<std::string> names;
    for (const Method& method : methods()) names.insert(names.end(), method.weight, method.name);
    return names;
}

Fields Model::answer(const Step& step) {
    const auto isIt = [&](const Method& method) { return method.name == step.method; };
    return std::find_if(methods().begin(), methods().end(), isIt)->answer(*this, step);
}

void Model::restart() {
    mProperties.clear();
    mListeners.clear();
    for (const auto& [key, value] : mBuildProp) (void)storeProperty(key, value);
    mConstants = mConstantsFile;
}

void Model::edit(const Step& step) {
    for (Rows* const rows : {&mSecure, &mPolicies}) {
        const auto row = rows->find(step.texts[0]);
        if (row == rows->end()) continue;
        if (step.method == "remove")
            rows->erase(row);
        else
            row->second.text = step.method == "hollow" ? std::optional<std::string>("") : std::nullopt;
    }
}

void Model::addLine(const Step& step) {
    const std::string& name = step.texts[0];
    const std::string& value = step.texts[1];
    if (step.method == "constant") {
        // The blank behind "=" is the constant's.
        if (!name.empty()) mConstantsFile[name] = (step.flag ? " " : "") + value;
        return;
    }
    // The blanks about "=" are nobody's, but the one that a line begins with. A line has 1,023 bytes: what is beyond
    // stands on a line of its own, and defines nothing.
    constexpr std::size_t kLineMost = 1023;
    const std::size_t before = name.size() + (step.flag ? 3 : 1);
    mBuildProp.emplace_back(name.empty() && step.flag ? " " : name, value.substr(0, kLineMost - before));
}

std::map<std::string, int> Model::registrations() const {
    std::map<std::string, int> counts;
    for (const auto& [key, one] : mListeners) counts[key] = one.count;
    return counts;
}

bool Model::operator==(const Model& other) const {
    const auto all = [](const Model& one) {
        return std::tie(one.mSecure, one.mPolicies, one.mBuildProp, one.mProperties, one.mConstantsFile, one.mConstants,
                        one.mListeners);
    };
    return all(*this) == all(other);
}

std::optional<Model::Weighed> Model::policyOf(const Row& row) {
    const std::string text = row.text.value_or("");
    if (text.empty()) return std::nullopt;
    const std::size_t at = text.find("&&&");
    const std::string number = at == std::string::npos ? text.substr(text.size() - 1) : text.substr(at + 3);
    if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    return Weighed{at == std::string::npos ? text.substr(0, text.size() - 1) : text.substr(0, at), std::stoi(number)};
}

std::optional<Model::Weighed> Model::policy(const std::string& key) const {
    const auto row = mPolicies.find(key);
    return row == mPolicies.end() ? std::nullopt : policyOf(row->second);
}

Model::Weighed Model::effective(const std::string& key) const {
    const auto row = mSecure.find(key);
    const std::string local = row == mSecure.end() ? "" : row->second.text.value_or("");
    const bool hidesWeak = row != mSecure.end() && row->second.key == key;
    const auto weighed = policy(key);
    const bool policyWins = weighed && (weighed->isStrong() || (local.empty() && !hidesWeak));
    Weighed result = policyWins ? *weighed : Weighed{local, kLocalPriority};
    if (result.value == "null_value") result.value.clear();
    return result;
}

// ---- Events ----

void Model::tellListeners(const std::string& key, const std::string& value, bool strong) {
    const auto found = mListeners.find(key);
    if (found == mListeners.end()) return;
    mEvents.push_back({"DM_CHANGED", {key, value}});
    if (found->second.flag) mEvents.back().fields.push_back(yes(strong));
}

void Model::tellSecure(const std::string& key, const std::string& old) {
    const Weighed now = effective(key);
    if (now.value == old) return;
    tellListeners(key, now.value, now.isStrong());
    mEvents.push_back({".sdconfigChanged", {key, now.value}});
}

// ---- Secure values ----

Fields Model::setSecure(const Step& step) {
    const std::string& key = step.texts[0];
    const std::string old = effective(key).value;
    mSecure.erase(key);
    mSecure[key] = {key, doubled(step.texts[1])};
    tellSecure(key, old);
    return {yes(true)};
}

Fields Model::deleteSecure(const Step& step) {
    const std::string& key = step.texts[0];
    const std::string old = effective(key).value;
    const auto row = mSecure.find(key);
    if (row != mSecure.end() && row->second.text != "") mSecure.erase(row);  // an empty row stays
    tellSecure(key, old);
    return {yes(true)};
}

Fields Model::getSecure(const Step& step) {
    const std::string& key = step.texts[0];
    Fields fields{effective(key).value};
    if (!fields[0].empty()) return fields;
    const auto policyRow = mPolicies.find(key);
    const auto row = mSecure.find(key);
    const bool isPolicyShut = policyRow != mPolicies.end() && !policyRow->second.text;
    const bool isLocalShut = row != mSecure.end() && row->second.text != "";
    const auto weighed = policy(key);
    const bool isGoverned = weighed && weighed->isStrong();
    if (isPolicyShut || (!isGoverned && isLocalShut)) fields.push_back(yes(true));
    return fields;
}

// ---- Policies ----

void Model::setPolicy(const std::string& key, const std::string& value, int priority) {
    const Weighed before = effective(key);
    mPolicies.erase(key);
    mPolicies[key] = {key, doubled(value + "&&&" + std::to_string(priority))};
    const Weighed now = effective(key);
    const bool changed = now.value != before.value;
    const bool flipped = now.isStrong() != before.isStrong();
    if (changed || flipped) mEvents.push_back({".DMChanged", {key, now.value, yes(now.isStrong())}});
    const auto listener = mListeners.find(key);
    if (changed || (flipped && listener != mListeners.end() && listener->second.flag))
        tellListeners(key, now.value, now.isStrong());
}

Fields Model::setPolicies(const Step& step) {
    for (std::size_t i = 0; i < step.numbers.size(); ++i)
        setPolicy(step.texts[2 * i], step.texts[2 * i + 1], step.numbers[i]);
    return {yes(!step.numbers.empty())};
}

Fields Model::deletePolicy(const Step& step) {
    const auto row = mPolicies.find(step.texts[0]);
    if (row != mPolicies.end() && row->second.text != "") mPolicies.erase(row);
    tellListeners(step.texts[0], "", false);
    return {yes(true)};
}

Fields Model::clearPolicies(const Step& /*step*/) {
    for (auto row = mPolicies.begin(); row != mPolicies.end();)
        row = row->second.text == "" ? std::next(row) : mPolicies.erase(row);
    return {yes(true)};
}

Fields Model::getPolicies(const Step& step) {
    Fields fields{std::to_string(step.texts.size())};
    for (const std::string& key : step.texts) {
        const Weighed now = effective(key);
        fields.insert(fields.end(), {key, now.value, std::to_string(now.priority)});
    }
    return fields;
}

Fields Model::listPolicies(const Step& /*step*/) {
    std::map<std::string, std::optional<Weighed>> all;
    for (const auto& [key, row] : mPolicies) all[row.key] = policyOf(row);
    Fields fields{std::to_string(all.size())};
    for (const auto& [key, weighed] : all) {
        fields.push_back(key);
        if (!weighed) continue;
        fields.insert(fields.end(),
                      {weighed->value.empty() ? "null_value" : weighed->value, std::to_string(weighed->priority)});
    }
    return fields;
}

// ---- Properties ----

// A release's is what the file says first, now. It can be set where the file doesn't tell, but never shows.
std::string Model::property(const std::string& key) const {
    if (isOfRelease(key)) {
        for (const auto& [defined, value] : mBuildProp)
            if (defined == key) return value;
        return "";
    }
    return valueIn(mProperties, key);
}

bool Model::storeProperty(const std::string& key, const std::string& value) {
    if (isReadOnly(key) && !property(key).empty()) return false;
    mProperties[key] = value;
    return true;
}

Fields Model::setProperty(const Step& step) {
    const std::string old = property(step.texts[0]);
    const bool isStored = storeProperty(step.texts[0], step.texts[1]);
    if (isStored && step.texts[1] != old) tellListeners(step.texts[0], step.texts[1], true);
    return {yes(isStored)};
}

Fields Model::deleteProperty(const Step& step) {
    if (isReadOnly(step.texts[0]) || mProperties.erase(step.texts[0]) == 0) return {yes(false)};
    tellListeners(step.texts[0], "", true);
    return {yes(true)};
}

// ---- Listeners ----

void Model::listen(const std::string& key, bool flag) {
    ++mListeners[key].count;
    mListeners[key].flag = flag;
}

Fields Model::registerListeners(const Step& step) {
    for (const std::string& key : step.texts) listen(key, step.flag);
    return {yes(!step.texts.empty())};
}

Fields Model::unregisterListener(const Step& step) {
    const auto found = mListeners.find(step.texts[0]);
    if (found == mListeners.end()) return {yes(false)};
    if (--found->second.count == 0) mListeners.erase(found);
    return {yes(true)};
}

Fields Model::isListened(const Step& step) {
    const auto listened = [this](const std::string& key) { return mListeners.count(key) != 0; };
    return {yes(!step.texts.empty() && std::all_of(step.texts.begin(), step.texts.end(), listened))};
}

Fields Model::listListeners(const Step& step) {
    const std::string& after = step.texts[0];
    Fields listed;
    for (const auto& [key, one] : mListeners)
        if (after.empty() || key > after) listed.insert(listed.end(), {key, std::to_string(one.count)});
    Fields fields{yes(false), std::to_string(listed.size() / 2)};
    fields.insert(fields.end(), listed.begin(), listed.end());
    return fields;
}

}  // namespace torture
