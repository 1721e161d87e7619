#include "trail/packer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "base/synced_folder.h"
#include "trail/blocks.h"
#include "trail/entry.h"
#include "trail/files.h"
#include "trail/packed.h"

namespace sd::trail {

namespace {

std::string partName(const std::string& rotated) {
    return packedName(rotated) + ".part";
}

// The name of the file before this one, as its first line has it; "" where it has none.
std::string nameBefore(int folder, const RotatedFile& file) {
    const OpenedFile opened = openFile(folder, file.name, O_RDONLY);
    if (!opened.file) return "";
    const int number = opened.file.get();
    const std::string block = (file.isPacked ? packedBlocks(number) : plainBlocks(number))->next();
    Entry entry;
    std::string problem;
    const bool isRotation =
        parseLine(std::string_view(block).substr(0, block.find('\n')), entry, problem) && entry.what == "ROTATE";
    return isRotation ? entry.file : "";
}

}  // namespace

bool Packer::step() {
    if (mIsDone) return false;
    try {
        if (mName.empty() && !begin()) return !(mIsDone = true);
        return packBlock() || giveUp();
    } catch (const std::runtime_error&) {  // no libzstd: they stay as they are
        (void)giveUp();
        return !(mIsDone = true);
    }
}

void Packer::look() {
    mIsDone = false;
    mTried = 0;  // files need not come in the order of their numbers, where somebody put some of his own among them
    if (!mName.empty() && ::faccessat(mFolder.get(), mName.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) != 0) (void)giveUp();
}

bool Packer::begin() {
    for (const RotatedFile& file : listRotated(mFolder.get())) {
        if (file.isPacked || file.first <= mTried) continue;
        mTried = file.first;
        mFrom = openFile(mFolder.get(), file.name, O_RDONLY).file;
        if (!mFrom) continue;
        mName = file.name;
        mPlace = 0;
        (void)::unlinkat(mFolder.get(), partName(mName).c_str(), 0);
        mTo = openFile(mFolder.get(), partName(mName), O_WRONLY | O_CREAT | O_EXCL).file;
        return static_cast<bool>(mTo) || (giveUp(), false);
    }
    return false;
}

// Whole lines of about kBlockBytes, or one that is longer.
bool Packer::packBlock() {
    std::string lines(kLineBytesMax + 1, '\0');
    const ssize_t count = ::pread(mFrom.get(), lines.data(), lines.size(), static_cast<off_t>(mPlace));
    if (count <= 0) return count == 0 && finish();
    lines.resize(static_cast<std::size_t>(count));
    std::size_t end = lines.rfind('\n', kBlockBytes - 1);
    if (end == std::string::npos) end = lines.find('\n');
    if (end == std::string::npos) return false;
    const std::string packed = packedBlock(std::string_view(lines).substr(0, end + 1));
    mPlace += end + 1;
    return ::write(mTo.get(), packed.data(), packed.size()) == static_cast<ssize_t>(packed.size());
}

bool Packer::finish() {
    if (::fsync(mTo.get()) != 0 ||
        ::renameat(mFolder.get(), partName(mName).c_str(), mFolder.get(), packedName(mName).c_str()) != 0 ||
        !syncFolder(mFolder.get()))
        return false;
    (void)::unlinkat(mFolder.get(), mName.c_str(), 0);
    mName.clear();
    mFrom.reset();
    mTo.reset();
    return true;
}

// Leaves the file as it is.
bool Packer::giveUp() {
    if (!mName.empty()) (void)::unlinkat(mFolder.get(), partName(mName).c_str(), 0);
    mName.clear();
    mFrom.reset();
    mTo.reset();
    return true;
}

std::uint64_t oldestKept(int folder, const std::string& newest, int keep) {
    const std::vector<RotatedFile> files = listRotated(folder);
    const auto named = [](const std::string& name) {
        return [&name](const RotatedFile& file) { return rotatedName(file.first) == name; };
    };
    auto file = std::find_if(files.rbegin(), files.rend(), named(newest));
    if (file == files.rend()) return 0;
    for (int kept = 1; kept < keep && std::next(file) != files.rend(); ++kept) {
        const std::string name = nameBefore(folder, *file);
        const auto before = std::find_if(std::next(file), files.rend(), named(name));
        file = before == files.rend() ? std::next(file) : before;  // it names none, or one that is gone
    }
    return file->first;
}

void dropBefore(int folder, std::uint64_t oldest) {
    for (const RotatedFile& file : listRotated(folder)) {
        if (file.first >= oldest) break;
        const std::string name = rotatedName(file.first);
        for (const std::string& form : {name, packedName(name), partName(name)})
            (void)::unlinkat(folder, form.c_str(), 0);
    }
}

}  // namespace sd::trail
