// The page's lists by file. Their keys become links by the script: as many names again would double what they take.
#include <map>

#include "apps/sdconfig/report/page_parts.h"

namespace cli {

namespace {

using State = sd::PolicySource::State;

void writeState(const sd::PolicySource& file, Markup& page) {
    switch (file.state) {
        case State::Read:
            page.number(file.policies);
            file.policies == 1 ? page << " policy" : page << " policies";
            break;
        case State::Absent:
            page << "There is no such folder.";
            break;
        case State::Masks:
            page << "It leaves its place empty: no file of its name counts.";
            break;
        case State::Replaced:
            page << "It does not count; in its place stands ";
            page.text(file.detail);
            break;
        case State::LeftOut:
            page << "<b class=x>Left out</b> ";
            page.text(file.detail);
            break;
        case State::Kept:
            page << "<b class=x>Not as it stands</b> what it held before stays in force: ";
            page.text(file.detail);
    }
}

void beginFile(const std::string& path, Markup& page) {
    page << "\n<div class=\"by-file\"><h3>";
    page.text(path) << "</h3><p class=\"soft\">";
}

}  // namespace

void writePolicyFiles(const Report& report, Markup& page) {
    if (!report.machine || !report.machine->isHere) {
        page << "<p class=\"none\">This report knows of none.</p>";
        return;
    }
    page << "<p>Files of these folders, one after the other; of one name the later one counts:</p><ul class=\"list\">";
    for (const sd::PolicySource& folder : report.machine->reading.folders) {
        page << "\n<li><code>";
        page.text(folder.path) << "</code> ";
        if (folder.state != State::Read) writeState(folder, page);
    }
    page << "</ul>";
    std::map<std::string, std::vector<const apps::MachinePolicy*>> byFile;
    for (const apps::MachinePolicy& one : report.policies.all()) byFile[one.file].push_back(&one);
    for (const sd::PolicySource& file : report.machine->reading.files) {
        beginFile(file.path, page);
        writeState(file, page);
        page << "</p><ul class=k>";
        for (const apps::MachinePolicy* one : byFile[file.path]) {
            page << "<li>";
            page.text(one->uri);
        }
        page << "</ul></div>";
    }
    for (const auto& [name, why] : report.machine->reading.nobody) {
        page << "<p>\u201cusers\u201d names ";
        page.text(name) << ", which governs nobody: ";
        page.text(why) << "</p>";
    }
}

void writePropertyFiles(const Report& report, Markup& page) {
    for (const PropertyFile& file : report.propertyFiles) {
        beginFile(file.path, page);
        if (!file.isRead) {
            page << "It is not there, or can\u2019t be read.</p></div>";
            continue;
        }
        page.number(file.definitions.size()) << " lines</p><ul class=p>";
        for (const auto& definition : file.definitions) {
            page << "<li>";
            page.text(definition.key);
        }
        page << "</ul></div>";
    }
}

}  // namespace cli
