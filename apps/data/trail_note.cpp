#include "apps/data/trail_note.h"

#include <unistd.h>

#include <exception>
#include <filesystem>

#include "apps/data/data_files.h"
#include "apps/data/sqlite_handles.h"
#include "apps/data/trail_check.h"
#include "src/sdconfig_sealed_row.h"
#include "src/sdconfig_trail_slots.h"
#include "trail/writer.h"

namespace apps {

namespace {

void readSlots(const std::string& file, std::vector<std::string>& texts) {
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(file.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
    const Database database(opened);
    sqlite3_stmt* made = nullptr;
    const std::string sql = std::string("SELECT value FROM ") + sd::kTrailTable;
    if (result != SQLITE_OK || sqlite3_prepare_v2(opened, sql.c_str(), -1, &made, nullptr) != SQLITE_OK) return;
    const Statement rows(made);
    while (sqlite3_step(made) == SQLITE_ROW) texts.push_back(columnBytes(made, 0));
}

}  // namespace

std::vector<std::string> carriedTrail(const std::string& folder) {
    std::vector<std::string> texts;
    for (const DatabaseLayout* layout : kLayouts) readSlots(folder + "/" + layout->file, texts);
    return texts;
}

sd::trail::Peer ownPeer() {
    std::error_code failure;
    sd::trail::Peer self;
    self.uid = ::geteuid();
    self.pid = ::getpid();
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", failure);
    if (!failure) self.exe = program;
    return self;
}

std::string noteInTrail(const std::string& folder, sd::trail::Entry entry) try {
    sd::trail::WriterOptions options;
    options.folder = folder;
    options.digest = ringDigest();
    options.sealingKey = sd::sealingKey;
    if (!options.digest) return "";
    sd::trail::Writer writer(std::move(options));
    const sd::trail::Opening opening = writer.open(carriedTrail(folder));
    entry.by = ownPeer();
    writer.append(std::move(entry));
    if (opening.wasEnded || opening.isNew) {  // as the next start is to find it: no service was killed here
        sd::trail::Entry end;
        end.what = "END";
        end.source = "end";
        writer.append(std::move(end));
    }
    return writer.sync() ? "" : writer.status().why;
} catch (const std::exception& failure) {  // OpenSSL could not be loaded, or memory ran out
    return failure.what();
}

}  // namespace apps
