// The calls about the keys of the service's ring.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"

namespace cli {

class Service;

// Some rows: how many, and the first of them.
struct RowNames {
    struct Name {
        bool isPolicy;
        std::string key;
    };
    std::size_t count = 0;
    std::vector<Name> first;
};
std::string textOf(const RowNames& rows);  // for a line of a message
Object objectsOf(const RowNames& rows);    // an array

// What became of a call: it was done; or problem: the service refused it; or exitCode: it gave no answer, as was told.
struct KeyAnswer {
    int exitCode = kDone;
    Problem problem;
    std::string keyId;  // that it was about

    explicit operator bool() const { return exitCode == kDone && !problem; }
};

struct Rotated : KeyAnswer {
    bool goesOn = false;  // with an earlier resealing, under the key that was made for it
};
Rotated rotate(const Service& service, bool reseal);

KeyAnswer setEnabled(const Service& service, const std::string& id, bool enabled);

// The next two take as many steps as it needs, and leave the service five sixths of its time for others.
// tell: called after each step, with the percentage that was done.
using Progress = std::function<void(int percent)>;

struct Resealed : KeyAnswer {
    std::size_t sealed = 0;
    RowNames left;
};
Resealed resealAll(const Service& service, const Progress& tell);

struct Pruned : KeyAnswer {
    std::vector<std::string> removed;
    std::vector<std::pair<std::string, RowNames>> needed;  // by the key's id
};
Pruned prune(const Service& service, const Progress& tell);

// Shows progress on standard error while that is a terminal; the line goes with this object.
class ProgressLine {
public:
    explicit ProgressLine(std::string what);
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void show(int percent);

private:
    const std::string mWhat;
    const bool mIsShown;
    int mPercent = -1;
};

// The answer told as refused where it was. Returns the exit code.
int refused(const Request& request, const KeyAnswer& answer);

}  // namespace cli
