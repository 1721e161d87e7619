// The scanner of old lock-screen texts.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>

#include "fuzz/support.h"
#include "libsdconfig/lockscreen_entries.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

void scan(const std::string& text) {
    std::size_t at = 0;
    for (const auto& [name, object] : sd::lockscreenEntries(text)) {
        fuzz::expect(name.find('"') == std::string::npos, "a name ends at its quotation mark");
        fuzz::expect(object.size() >= 2 && object.front() == '{', "an object begins at its brace");
        fuzz::expect(object.find('}') == object.size() - 1, "an object ends at its first closing brace");
        const std::size_t nameAt = text.find('"' + name + '"', at);
        fuzz::expect(nameAt != std::string::npos, "names stand in the text, in its order");
        at = text.find(object, nameAt + name.size() + 2);
        fuzz::expect(at != std::string::npos, "objects stand behind their names");
        at += object.size();
    }
}

std::string without(std::string text, char byte) {
    text.erase(std::remove(text.begin(), text.end(), byte), text.end());
    return text;
}

void roundTrip(FuzzedDataProvider& input) {
    Entries entries;
    std::string text = "{";
    while (input.remaining_bytes() > 0 && entries.size() < 8) {
        const std::string name = without(input.ConsumeRandomLengthString(32), '"');
        const std::string object = "{" + without(input.ConsumeRandomLengthString(64), '}') + "}";
        text.append(entries.empty() ? "\"" : ", \"").append(name).append("\": ").append(object);
        entries.emplace_back(name, object);
    }
    fuzz::expect(sd::lockscreenEntries(text + "}") == entries, "what was composed is taken apart");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    scan(fuzz::text(data, size));
    FuzzedDataProvider input(data, size);
    roundTrip(input);
    return 0;
}
