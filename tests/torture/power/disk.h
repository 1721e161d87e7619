// The disk as a power cut leaves it: what was synced, and of the rest as much or as little as the disk liked.
#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/torture/power/record.h"

namespace power {

struct Entry {
    Kind kind;
    std::uint64_t file;
    std::int64_t number;
    std::string path;
    std::string data;
};

// Throws std::runtime_error where the log is cut or none.
std::vector<Entry> readLog(const std::string& path);

// In one step, beside others that do so.
void appendToLog(const std::string& path, const Entry& entry);

// By path below the root of what was recorded. A folder's path ends in a slash.
using Files = std::map<std::string, std::string>;
Files filesIn(const std::string& root);

class Disk {
public:
    explicit Disk(const std::string& root) : mRoot(root), mNodes(1) {}

    // The next call took effect. Throws std::runtime_error where it is about something that was not recorded.
    void apply(const Entry& entry);

    // The files as a process saw them.
    Files asSeen() const;

    // The files that a cut at this moment may leave. All that was synced is there, in a folder that is. Of what was
    // written to a file since its last sync there is all, nothing, or some, in whatever order: a whole write, or some
    // of the sectors of 512 or 4,096 bytes of the file that it went to; or the size that it gave the file, which then
    // reads as zeros. Of the changes of names since their folder's last sync there are the first few, or any: so a
    // rename may be there before its file's data, and a folder whose own name was not synced may be gone with all in
    // it. On some disks a file's sync makes its own last name last.
    Files afterCut(std::mt19937_64& random) const;

private:
    struct Change {  // of a file's data: a write, or with no data a truncation
        std::uint64_t at;
        std::string data;
        bool isTruncation;
    };
    struct Node {  // a file, or a folder, which has no content
        bool isFolder = true;
        std::string seen{};
        std::string synced{};
        std::vector<Change> pending{};
    };
    // Nodes by their places among all. The root's is 0.
    using Place = std::pair<int, std::string>;  // a folder, and a name in it
    using Names = std::map<Place, int>;
    struct Naming {  // a change of names
        int folder;  // whose sync makes it last
        std::vector<std::pair<Place, int>> names;
        bool isFileSynced = false;  // the file that it names was, since
    };
    static constexpr int kNone = -1;

    Place placeOf(const std::string& path) const;
    int nodeAt(const Place& place) const;
    void checkIsAt(const Place& place, const Entry& entry) const;
    int add(const Entry& entry, bool isFolder);
    int fileOf(const Entry& entry);
    Node& file(const Entry& entry) { return mNodes[static_cast<std::size_t>(fileOf(entry))]; }
    static void change(Node& file, Change change);
    void name(Naming naming);
    void rename(const Entry& entry);
    void syncFile(const Entry& entry);
    void syncFolder(const std::string& path);
    static void apply(const Naming& naming, Names& names);
    static void apply(const Change& change, std::string& content);
    static void applyPart(const Change& change, std::string& content, std::mt19937_64& random);
    static std::string contentAfterCut(const Node& file, int mode, std::mt19937_64& random);
    Names namesAfterCut(std::mt19937_64& random) const;
    template <class ContentOf>
    void collect(const Names& names, int folder, const std::string& path, const ContentOf& contentOf,
                 Files& files) const;

    const std::string mRoot;
    std::vector<Node> mNodes;
    std::map<std::uint64_t, int> mByInode;
    Names mSeen;
    Names mSynced;
    std::vector<Naming> mPending;
};

// That the log tells of all that led to the files that are there. Throws std::runtime_error.
void checkRecording(const std::vector<Entry>& log, const std::string& root);

}  // namespace power
