#include "apps/sdconfig-keygen/key_header.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "apps/sdconfig-keygen/literal.h"
#include "apps/sdconfig-keygen/names.h"
#include "base/escaped.h"

namespace keygen {

namespace {

constexpr std::size_t kLineWidth = 100;

// A key on its way into the header.
struct Entry {
    const sd::KeyDescription* description;
    const std::string* file;
    PlaceOfKey place;
    std::string space;     // "velmar::proxy"; "": none
    std::string enumName;  // "": none

    std::string where() const {
        return sd::escaped(*file) + ", line " + std::to_string(description->line) + ", " + sd::quoted(description->key);
    }
    bool hasEnum() const { return ruleOf(*description).type == sd::KeyType::Enum; }
};

std::string joined(const std::vector<std::string>& namespaces) {
    std::string text;
    for (const std::string& one : namespaces) text += (text.empty() ? "" : "::") + one;
    return text;
}

std::string inside(const std::string& outer, const std::string& inner) {
    return outer.empty() || inner.empty() ? outer + inner : outer + "::" + inner;
}

// A text of one line. A backslash at its end would take the next line in.
std::string comment(const std::string& text) {
    return "// " + text + (!text.empty() && text.back() == '\\' ? "." : "");
}

class Composer {
public:
    Composer(const std::vector<DescribedFile>& files, const Options& options) : mOptions(options) {
        for (const DescribedFile& file : files)
            for (const sd::KeyDescription& description : file.descriptions)
                mEntries.push_back({&description, &file.path, placeOf(description.key), "", ""});
    }

    KeyHeader compose() {
        settleNames();
        if (!mHeader.problems.empty()) return std::move(mHeader);
        std::stable_sort(mEntries.begin(), mEntries.end(),
                         [](const Entry& one, const Entry& other) { return one.space < other.space; });
        writeBeginning();
        for (auto first = mEntries.begin(); first != mEntries.end();) {
            const auto last =
                std::find_if(first, mEntries.end(), [&](const Entry& one) { return one.space != first->space; });
            writeSpace({first, last});
            first = last;
        }
        return std::move(mHeader);
    }

private:
    // ---- Names ----

    void settleNames() {
        std::set<std::string> spaces;
        for (const Entry& entry : mEntries) {
            std::string space;
            for (const std::string& one : entry.place.namespaces) spaces.insert(space = inside(space, one));
        }
        std::map<std::string, const Entry*> taken;
        for (Entry& entry : mEntries) {
            const std::string around = joined(entry.place.namespaces);
            while (spaces.count(inside(around, entry.place.name)) > 0) entry.place.name += '_';
            entry.space = inside(mOptions.aroundAll, around);
            take(taken, entry, inside(around, entry.place.name));
            if (!entry.hasEnum()) continue;
            entry.enumName = typeNameOf(entry.place.name);
            while (spaces.count(inside(around, entry.enumName)) > 0) entry.enumName += '_';
            take(taken, entry, inside(around, entry.enumName));
            checkWords(entry);
        }
    }

    void take(std::map<std::string, const Entry*>& taken, const Entry& entry, const std::string& name) {
        const auto [first, isNew] = taken.emplace(name, &entry);
        if (isNew) return;
        const bool isSame = first->second->description->key == entry.description->key;
        const std::string what = isSame ? " is described already in " : " would be called " + name + ", as is ";
        mHeader.problems.push_back(entry.where() + ":" + what + first->second->where() +
                                   "; next: " + (isSame ? "keep one of the two" : "rename one, or make two headers"));
    }

    void checkWords(const Entry& entry) {
        std::map<std::string, std::string> taken;
        for (const std::string& word : ruleOf(*entry.description).allowed) {
            const auto [first, isNew] = taken.emplace(identifierOf(word), word);
            if (!isNew)
                mHeader.problems.push_back(entry.where() + R"(, "enum": )" + sd::quoted(word) + " would be called " +
                                           first->first + ", as is " + sd::quoted(first->second) +
                                           "; next: rename one");
        }
    }

    // ---- Text ----

    void line(const std::string& text = "") { mHeader.text += text + "\n"; }

    void writeBeginning() {
        line("// Made by sdconfig-keygen. What is changed here is lost: change the files of descriptions.");
        line("// clang-format off");
        line("#pragma once");
        line();
        for (const char* header : {"chrono", "cstdint", "limits", "string", "string_view", "utility", "vector"})
            line(std::string("#include <") + header + ">");
        line();
        line("#include <libsdconfig/sdconfig_key.h>");
    }

    void writeSpace(const std::vector<Entry>& entries) {
        const std::string& space = entries.front().space;
        const auto begin = [&] {
            if (!space.empty()) line("namespace " + space + " {");
        };
        const auto end = [&] {
            if (!space.empty()) line("}  // namespace " + space);
        };
        line();
        if (std::any_of(entries.begin(), entries.end(), [](const Entry& one) { return one.hasEnum(); })) {
            begin();
            for (const Entry& entry : entries)
                if (entry.hasEnum()) writeEnum(entry);
            end();
            for (const Entry& entry : entries)
                if (entry.hasEnum()) writeWords(entry);
        }
        begin();
        for (const Entry& entry : entries) writeKey(entry);
        end();
    }

    void writeEnum(const Entry& entry) {
        const auto& words = entry.description->words.values;
        line("enum class " + entry.enumName + " {");
        for (const std::string& word : ruleOf(*entry.description).allowed) {
            const auto meaning = words.find(word);
            line("    " + identifierOf(word) + "," +
                 (meaning == words.end() ? "" : "  " + comment(sd::escaped(meaning->second))));
        }
        line("};");
    }

    void writeWords(const Entry& entry) {
        const std::string type = "::" + inside(entry.space, entry.enumName);
        line("template <>");
        line("struct sd::Words<" + type + "> {");
        line("    static constexpr std::pair<std::string_view, " + type + "> kAll[] = {");
        for (const std::string& word : ruleOf(*entry.description).allowed)
            line("        {" + quotedLiteral(word) + ", " + type + "::" + identifierOf(word) + "},");
        line("    };");
        line("};");
    }

    void writeKey(const Entry& entry) {
        const sd::KeyDescription& one = *entry.description;
        writeComment(one);
        if (one.isDeprecated)
            line("[[deprecated(" + quotedLiteral(one.replacedBy.empty() ? "" : "use " + one.replacedBy) + ")]]");
        const char* const kind = one.isGlob() ? "sd::KeyFamily<" : "sd::Key<";
        const char* const store = one.store == sd::KeyStore::Secure ? "sd::Store::Secure" : "sd::Store::Property";
        line(std::string("inline constexpr ") + kind + typeOf(one, entry.enumName) + "> " + entry.place.name + "{" +
             quotedLiteral(one.key) + ", " + store + ", " + defaultOf(one, entry.enumName) + ", " + rangeOf(one) +
             "};");
    }

    void writeComment(const sd::KeyDescription& one) {
        if (!one.words.summary.empty()) writeWrapped(one.words.summary);
        if (!one.words.description.empty()) writeWrapped(one.words.description);
        if (!one.words.unit.empty()) writeWrapped("Unit: " + one.words.unit + ".");
        if (one.isSecret) writeWrapped("Its value is a secret.");
        if (!one.since.empty()) writeWrapped("Since " + one.since + ".");
    }

    // In lines of a comment, which nothing of the text can end.
    void writeWrapped(const std::string& text) {
        std::string row;
        for (std::size_t begin = 0; begin < text.size();) {
            const std::size_t end = std::min(text.find_first_of(" \t\r\n", begin), text.size());
            const std::string word = sd::escaped(text.substr(begin, end - begin));
            if (!row.empty() && row.size() + 1 + word.size() > kLineWidth) line(comment(std::exchange(row, "")));
            if (!word.empty()) row += (row.empty() ? "" : " ") + word;
            begin = end + 1;
        }
        if (!row.empty()) line(comment(row));
    }

    const Options& mOptions;
    std::vector<Entry> mEntries;
    KeyHeader mHeader;
};

}  // namespace

KeyHeader makeKeyHeader(const std::vector<DescribedFile>& files, const Options& options) {
    return Composer(files, options).compose();
}

}  // namespace keygen
