// The real service and command line on a disk after a cut: what they answer is compared with the model.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/sdbus/sdbus.h"
#include "tests/torture/power/disk.h"
#include "tests/torture/power/model.h"
#include "tests/torture/service_life.h"

namespace power {

struct Programs {
    std::string sdconfigd, sdconfig;
    std::string recorder;              // the library to preload
    std::vector<std::string> options;  // of the service, with the root of what was recorded written as @
};

enum class Look { Short, Whole };

// A folder of its own, and the service on each state in it.
class Worker {
public:
    explicit Worker(const Programs& programs);

    std::string disk() const { return mLife.place() + "/disk"; }
    void put(const Files& files) const;

    // Of the files that were put.
    void check(const Model& model, const Files& files, Look look);

    // Starts the service on the files once more, has it store some values and end, and returns what was done to them.
    // The model, of the begin, is told what the start makes of what was under way.
    std::vector<Entry> record(Model& model, const Files& files, bool isKilled);
    // The log of that.
    std::string recording() const { return mLife.place() + "/calls"; }

private:
    using Words = std::vector<std::string>;
    using Variables = test::Environment;

    void settle(Model& model, const Files& files);
    void noteExisting(const std::string& path, const std::string& content) const;
    void mark(const std::string& text) const;
    void start(const Variables& variables = {});
    Values ask(const Model& model);
    void set(const std::string& key, const std::string& value);
    void checkStart(const Model& model, const Files& files, Look look, bool isSound);
    test::Result run(Words words, const Variables& variables = {}) const;
    std::string ran(const Words& words, const Variables& variables = {}) const;
    bool isFoundSound(const Files& files) const;
    void upgradeAgain(const Model& model, const Variables& variables = {}) const;
    TrailRead trail() const;
    Values storedIn(const std::string& folder) const;
    void lookAt(const Model& model, const Files& files, const Values& found) const;

    const Programs& mPrograms;
    torture::ServiceLife mLife;
    const std::shared_ptr<SDBusProxyInterface> mProxy;
};

}  // namespace power
