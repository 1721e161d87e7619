#include "descriptions/lint.h"

#include <algorithm>
#include <map>

#include "base/escaped.h"
#include "base/letter_case.h"
#include "base/nearest.h"
#include "descriptions/glob.h"

namespace sd {

namespace {

constexpr std::size_t kMeantMost = 100;  // keys for which it is worth its time to look what was meant

struct Placed {
    const std::string* file;
    const KeyDescription* description;

    std::string place() const { return *file + ", line " + std::to_string(description->line); }
};

// Whether a value of the one may be none of the other.
bool doContradict(const KeyDescription& one, const KeyDescription& other) {
    const auto differ = [](const ValueRule& a, const ValueRule& b) {
        return a.type != b.type || a.minimum != b.minimum || a.maximum != b.maximum || a.pattern != b.pattern ||
               a.allowed != b.allowed;
    };
    return differ(one.value, other.value) || differ(one.items, other.items) || one.store != other.store ||
           one.isSecret != other.isSecret || one.defaultValue != other.defaultValue ||
           one.isGovernable != other.isGovernable;
}

class Linter {
public:
    explicit Linter(const std::vector<Descriptions::ReadFile>& files) : mFiles(files) {}

    std::vector<DescriptionLint> run() {
        for (const auto& [path, content] : mFiles) {
            for (const DescriptionFault& fault : content.faults) mFound.push_back({true, path, fault});
            for (const KeyDescription& one : content.descriptions) compare({&path, &one});
        }
        for (std::size_t i = 0; i < mGlobs.size(); ++i) compareGlob(i);
        for (const auto& [name, one] : mByKey) {
            compareWithGlobs(one);
            lookAtReplacement(one);
        }
        sort();
        return std::move(mFound);
    }

private:
    void warn(const Placed& one, const char* field, std::string what, std::string remedy) {
        mFound.push_back({false,
                          *one.file,
                          {one.description->line, one.description->key, field, std::move(what), std::move(remedy)}});
    }

    // Of a key that files before described.
    void compare(const Placed& one) {
        if (one.description->isGlob()) mGlobs.push_back(one);
        const auto [at, isNew] = mByKey.try_emplace(folded(one.description->key), one);
        if (isNew) return;
        const Placed earlier = std::exchange(at->second, one);
        if (doContradict(*earlier.description, *one.description))
            warn(one, "", "contradicts " + earlier.place() + ", and counts, as its file is the later one by its name",
                 "keep the one that is meant");
        else
            warn(one, "", "is described in " + earlier.place() + " already", "keep one of the two");
    }

    // With the globs before it.
    void compareGlob(std::size_t index) {
        const Placed& one = mGlobs[index];
        for (std::size_t i = 0; i < index; ++i) {
            const Placed& other = mGlobs[i];
            const std::string& name = other.description->key;
            if (compareFolded(one.description->key, name) == 0 || !doGlobsMeet(one.description->key, name)) continue;
            const bool isLess = lettersOf(one.description->key) < lettersOf(name);
            warn(one, "",
                 (isLess ? "stands for keys that count as those of " : "shadows keys of ") + quoted(name) + " in " +
                     other.place(),
                 "say more in one of the two, so that no key fits both");
        }
    }

    void compareWithGlobs(const Placed& one) {
        if (one.description->isGlob()) return;
        for (const Placed& glob : mGlobs) {
            const KeyDescription& broader = *glob.description;
            if (!fitsGlob(one.description->key, broader.key, LetterCase::Ignored)) continue;
            if (one.description->value.type == broader.value.type && one.description->store == broader.store) continue;
            warn(one, "",
                 "has another type or store than " + quoted(broader.key) + " in " + glob.place() +
                     ", which stands for it, too",
                 "describe both alike, or change the glob");
        }
    }

    void lookAtReplacement(const Placed& one) {
        const std::string& name = one.description->replacedBy;
        if (name.empty() || mByKey.count(folded(name)) != 0) return;
        for (const Placed& glob : mGlobs)
            if (fitsGlob(name, glob.description->key, LetterCase::Ignored)) return;
        std::vector<std::string_view> names;
        if (++mUnknown <= kMeantMost)
            for (const auto& [folded, other] : mByKey) names.push_back(other.description->key);
        const std::string near = nearest(name, names);
        warn(one, "replacedBy", "names a key that nothing here describes",
             near.empty() ? "look at the file that describes it, too" : "did you mean " + quoted(near) + "?");
    }

    void sort() {
        std::map<std::string, std::size_t> order;
        for (const auto& [path, content] : mFiles) order.emplace(path, order.size());
        std::stable_sort(mFound.begin(), mFound.end(), [&](const DescriptionLint& a, const DescriptionLint& b) {
            return std::pair(order[a.file], a.fault.line) < std::pair(order[b.file], b.fault.line);
        });
    }

    const std::vector<Descriptions::ReadFile>& mFiles;
    std::map<std::string, Placed> mByKey;  // without letter case
    std::vector<Placed> mGlobs;
    std::size_t mUnknown = 0;
    std::vector<DescriptionLint> mFound;
};

}  // namespace

std::vector<DescriptionLint> lintDescriptions(const std::vector<Descriptions::ReadFile>& files) {
    return Linter(files).run();
}

}  // namespace sd
