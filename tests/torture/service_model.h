// A model of the service, without a disk: what the 22 methods and the list of listeners answer, which events they send,
// and which rows they leave. And a generator of random calls, by which the real service is compared with it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/sdbus/sdbus.h"

namespace torture {

using Fields = std::vector<std::string>;

// ---- Steps ----

struct Step {
    std::string method;  // or what else happens: an end of the service, an edit of rows or of the product's files
    std::size_t client = 0;
    std::vector<std::string> texts{};
    std::vector<int> numbers{};
    bool flag = false;
};

std::string shown(const std::string& text);
std::string shown(const Step& step);

// Of the methods that take any number of keys.
bool takesList(const std::string& method);

// Gives the call the arguments of the step.
void appendArguments(SDBusMessage& call, const Step& step);

// What is written at the end of one of the product's files: by "define" to build.prop, by "constant" to the constants.
// With blanks about "=" where the flag is set.
std::string productLine(const Step& step);

class Generator {
public:
    // methods: what a step may be, each as often as it stands there.
    Generator(std::uint64_t seed, std::vector<std::string> methods, std::size_t clients)
        : mRandom(seed), mMethods(std::move(methods)), mClients(clients) {}

    // All that a history is about.
    static const std::vector<std::string>& keys();

    std::vector<Step> history(int length);
    Step step();
    const std::string& method() { return one(mMethods); }
    std::string key() { return one(keys()); }
    std::string value();
    int priority();
    std::size_t below(std::size_t most) { return std::uniform_int_distribution<std::size_t>(0, most - 1)(mRandom); }

private:
    template <class Value>
    const Value& one(const std::vector<Value>& pool) {
        return pool[below(pool.size())];
    }

    std::mt19937_64 mRandom;
    const std::vector<std::string> mMethods;
    const std::size_t mClients;
};

// ---- The model ----

// Keys of rows don't tell upper from lower case, in ASCII alone.
struct NoCase {
    bool operator()(const std::string& a, const std::string& b) const;
};

// A row: the key as it was spelled, and what its value reads back as; nothing where that can't be opened.
struct Row {
    std::string key;
    std::optional<std::string> text;
    bool operator==(const Row& other) const { return key == other.key && text == other.text; }
};
using Rows = std::map<std::string, Row, NoCase>;

struct Event {
    std::string name;
    Fields fields;
    bool operator==(const Event& other) const { return name == other.name && fields == other.fields; }
};

// Of an answer or an event.
Fields fieldsOf(SDBusMessage& message);

std::string yes(bool value);

class Model {
public:
    // Often what changes something, now and then what only asks.
    static std::vector<std::string> weightedMethods();

    // The fields of the answer. Events go to mEvents.
    Fields answer(const Step& step);

    // Forgets what only the process knew, and reads the product's files.
    void restart();

    // An edit of the rows of both databases.
    void edit(const Step& step);

    // A line more in one of the product's files.
    void addLine(const Step& step);

    std::vector<Event> takeEvents() { return std::exchange(mEvents, {}); }
    const Rows& secure() const { return mSecure; }
    const Rows& policies() const { return mPolicies; }

    std::map<std::string, int> registrations() const;  // how many of each key

    bool operator==(const Model& other) const;

private:
    static constexpr int kLocalPriority = 5;

    struct Weighed {
        std::string value;  // "" for none
        int priority;
        bool isStrong() const { return priority > kLocalPriority; }
    };
    struct Registrations {
        int count = 0;
        bool flag = false;
        bool operator==(const Registrations& other) const { return count == other.count && flag == other.flag; }
    };
    struct Method {
        std::string name;
        std::size_t weight;
        std::function<Fields(Model&, const Step&)> answer;
    };
    static const std::vector<Method>& methods();

    static std::optional<Weighed> policyOf(const Row& row);

    std::optional<Weighed> policy(const std::string& key) const;

    Weighed effective(const std::string& key) const;

    // ---- Events ----

    void tellListeners(const std::string& key, const std::string& value, bool strong);
    void tellSecure(const std::string& key, const std::string& old);

    // ---- Secure values ----

    Fields setSecure(const Step& step);
    Fields deleteSecure(const Step& step);
    Fields getSecure(const Step& step);

    // ---- Policies ----

    void setPolicy(const std::string& key, const std::string& value, int priority);
    Fields setPolicies(const Step& step);
    Fields deletePolicy(const Step& step);
    Fields clearPolicies(const Step& step);
    Fields getPolicies(const Step& step);
    Fields listPolicies(const Step& step);

    // ---- Properties ----

    std::string property(const std::string& key) const;
    bool storeProperty(const std::string& key, const std::string& value);
    Fields setProperty(const Step& step);
    Fields deleteProperty(const Step& step);

    // ---- Listeners ----

    void listen(const std::string& key, bool flag);
    Fields registerListeners(const Step& step);
    Fields unregisterListener(const Step& step);
    Fields isListened(const Step& step);
    Fields listListeners(const Step& step);

    Rows mSecure;
    Rows mPolicies;
    std::vector<std::pair<std::string, std::string>> mBuildProp;  // what its lines define, in their order
    std::map<std::string, std::string> mProperties;
    std::map<std::string, std::string> mConstantsFile;
    std::map<std::string, std::string> mConstants;  // as the file was at the start
    std::map<std::string, Registrations> mListeners;
    std::vector<Event> mEvents;
};

}  // namespace torture
