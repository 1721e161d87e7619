// Files of descriptions: hostile texts, that what is found counts as a whole reading has it, and that what is stored of
// a value reads back as it is.
#include "descriptions/descriptions.h"

#include <algorithm>
#include <map>

#include "base/letter_case.h"
#include "descriptions/glob.h"
#include "descriptions/lint.h"
#include "descriptions/value_check.h"
#include "fuzz/support.h"

namespace {

constexpr char kNextPart = '\x1e';  // stands in no sound file
constexpr std::size_t kTextMax = 4096;

void checkFault(const sd::DescriptionFault& fault) {
    fuzz::expect(!fault.what.empty() && !fault.remedy.empty(), "a fault has a remedy");
    const std::string place = fault.place();
    fuzz::expect(place.size() < kTextMax, "a place is a line");
    fuzz::expect(std::none_of(place.begin(), place.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }),
                 "a place holds no control characters");
}

void checkStored(const sd::KeyDescription& description, const std::string& value) {
    const sd::CheckedValue checked = sd::checkValue(description, value);
    if (!checked.fits()) return fuzz::expect(!checked.remedy.empty(), "a misfit has a remedy");
    const sd::CheckedValue again = sd::checkValue(description, checked.stored);
    fuzz::expect(again.fits() && again.stored == checked.stored, "what is stored reads back as it is");
}

void read(const std::string& text, const std::string& value) {
    const sd::DescriptionFile file = sd::readDescriptions(text);
    for (const sd::DescriptionFault& fault : file.faults) checkFault(fault);
    sd::Descriptions all;
    all.add("file", text);
    std::map<std::string, int> lines;
    for (const sd::KeyDescription& one : file.descriptions) {
        fuzz::expect(one.line > 0 && lines.emplace(sd::folded(one.key), one.line).second, "a key is described once");
        checkStored(one, one.defaultValue.value_or(value));
        checkStored(one, value);
        if (one.isGlob()) continue;
        const auto found = all.find(one.key);
        fuzz::expect(found && found->description.line == one.line, "a look-up finds what a whole reading has");
    }
    (void)all.near(value);
    for (const auto& [isFault, path, fault] : sd::lintDescriptions(all.readFiles())) checkFault(fault);
}

// A text that both globs stand for can't be had of doGlobsMeet, but one that they stand for has to be told by it.
void compareGlobs(const std::string& key, const std::string& one, const std::string& other) {
    const auto fits = [&](const std::string& glob) { return sd::fitsGlob(key, glob, sd::LetterCase::Ignored); };
    if (fits(one) && fits(other)) fuzz::expect(sd::doGlobsMeet(one, other), "globs that stand for a key meet");
    fuzz::expect(sd::doGlobsMeet(one, other) == sd::doGlobsMeet(other, one), "the order doesn't matter");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string input = fuzz::text(data, size);
    std::vector<std::string> parts(3);
    for (std::size_t begin = 0, i = 0; i < parts.size() && begin <= input.size(); ++i) {
        const std::size_t end = std::min(input.find(kNextPart, begin), input.size());
        parts[i] = input.substr(begin, end - begin);
        begin = end + 1;
    }
    read(parts[0], parts[1]);
    constexpr std::size_t kGlobMax = 64;
    for (std::string& part : parts) part.resize(std::min(part.size(), kGlobMax));
    compareGlobs(parts[0], parts[1], parts[2]);
    return 0;
}
