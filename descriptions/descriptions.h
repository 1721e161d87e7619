// All descriptions of a machine, by the key. What nobody asks for is not read: a look-up walks over the texts and reads
// the description that it finds.
#pragma once

#include <sys/types.h>

#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/trusted_path.h"
#include "descriptions/description.h"
#include "descriptions/outline.h"

namespace sd {

struct DescriptionFolder {
    std::string path;  // absolute
    uid_t owner;       // who may have made what is there, beside root
};

// Where packages put theirs, and the administrator.
std::vector<DescriptionFolder> standardDescriptionFolders();

// Whether a file of that name is one of descriptions: *.keys.json, and not hidden.
bool isDescriptionFileName(const std::string& name);

// What hindered reading the file, or "".
std::string readDescriptionFile(int file, std::string& text);

// Files are taken in the order of their names: of a key that several describe, the last one's description counts. A key
// that is named counts before a glob, and a glob that says more before one that says less. For one thread at a time.
class Descriptions {
public:
    struct Found {
        KeyDescription description;
        std::string file;
    };

    // What is left out, and why.
    struct Finding {
        std::string file;
        DescriptionFault fault;
    };

    Descriptions() = default;

    // All files of the folders that only their owners can have written. One of a later folder takes the place of that
    // of the same name in an earlier one; an empty one, or a link to /dev/null, leaves the place empty.
    explicit Descriptions(const std::vector<DescriptionFolder>& folders);

    void add(std::string file, std::string text);

    // Whether nothing is described.
    bool isEmpty() const { return mCount == 0; }

    // Keys of secure values don't tell upper from lower case, properties do. excerpt: gets the text of the file without
    // the other descriptions.
    std::optional<Found> find(const std::string& key, std::string* excerpt = nullptr);

    // In the order of the keys. What is left out comes to what was met so far.
    std::vector<Found> all();

    struct ReadFile {
        std::string path;
        DescriptionFile content;
    };

    // All files but those that are left out as a whole, in their order.
    std::vector<ReadFile> readFiles() const;

    // Those of all descriptions but globs, sorted, whether these are as they have to be or not.
    std::vector<std::string> names() const;

    // What may have been meant by a key that is not described; "" for no idea.
    std::string near(const std::string& key) const;

    // What was met so far: files as a whole, and the descriptions that were asked for.
    const std::vector<Finding>& leftOut() const { return mLeftOut; }

private:
    struct File {
        std::string path;
        std::string text;
        Outline outline;
        std::vector<int> lines;  // of the names; counted when first asked for
    };
    struct Place {
        std::size_t file;
        std::size_t index;  // in its outline
    };
    struct Glob {
        std::string name;
        Place place;
    };
    struct FoldedHash {
        std::size_t operator()(std::string_view key) const;
    };
    struct FoldedEqual {
        bool operator()(std::string_view one, std::string_view other) const;
    };

    bool take(const std::string& path, const TrustedOpening& opening);
    void leaveOut(std::string file, std::string what, std::string remedy);
    using TakeKey = std::function<void(std::string_view key, Place place)>;
    void addOdd(const OutlinedDescription& outlined, Place place);
    int lineOf(File& file, std::size_t index) const;
    void forEachKey(const TakeKey& take) const;
    std::vector<Place> placesNamed(const std::string& key);
    std::vector<Place> placesOf(const std::string& key);
    std::optional<KeyDescription> read(Place place);

    std::deque<File> mFiles;
    std::vector<std::pair<std::string, Place>> mEscaped;  // keys that are written with backslashes, as they are meant
    std::size_t mCount = 0;                               // of descriptions
    // Keys and their places: made when more than a few are looked up, as that takes as long as some hundred looks.
    std::unordered_multimap<std::string_view, Place, FoldedHash, FoldedEqual> mByKey;
    std::size_t mLookUps = 0;
    std::vector<Glob> mGlobs;
    std::size_t mBytes = 0;
    std::set<const char*> mTold;  // names whose faults are among those of mLeftOut
    std::vector<Finding> mLeftOut;
};

}  // namespace sd
