#include "tests/torture/power/replay.h"

#include <optional>
#include <utility>

namespace power {
namespace {

// The path where the entry marks that of a file written whole.
std::optional<std::string> fileIn(const Entry& entry, const std::string& what) {
    const std::string mark = what + "\tfile\t";
    if (entry.kind != Kind::Mark || entry.data.compare(0, mark.size(), mark) != 0) return std::nullopt;
    return entry.data.substr(mark.size(), entry.data.find('\t', mark.size()) - mark.size());
}

}  // namespace

Replay::Replay(const std::string& root, const std::vector<Entry>& log, Model model)
    : mCleanEnd(root + "/" + kCleanEndMark), mDisk(root), mModel(std::move(model)) {
    Disk whole(root);
    for (const Entry& entry : log) {
        whole.apply(entry);
        if (const auto path = fileIn(entry, "ack")) mDone[*path].push_back(contentIn(whole.asSeen(), *path));
    }
}

void Replay::apply(const Entry& entry) {
    mDisk.apply(entry);
    if (entry.kind == Kind::Rename && entry.data == mCleanEnd) mModel.noteCleanEnd(mDisk.asSeen());
    if (entry.kind != Kind::Mark) return;
    mModel.apply(entry.data, [this](const std::string& path) { return contentIn(mDisk.asSeen(), path); });
    if (const auto path = fileIn(entry, "begin")) {
        mModel.foresee(*path, mDone.at(*path).front());
        mDone.at(*path).pop_front();
    }
}

}  // namespace power
