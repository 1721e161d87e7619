// The trail: a line, a file that is read from both ends, a packed one, and what a start finds in the file and the
// slots.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

#include "fuzz/support.h"
#include "trail/chain.h"
#include "trail/reader.h"
#include "trail/verify.h"
#include "trail/writer.h"

namespace {

using namespace sd::trail;

constexpr char kKey[] = "key";

// One that inputs can have.
std::string digest(const std::string& key, const std::vector<std::string_view>&) {
    return key == kKey ? std::string(64, '0') : "";
}

const std::string& folder() {
    static const std::string sFolder = fuzz::makeFolder();
    return sFolder;
}

void put(const char* name, const std::string& content) {
    std::ofstream(folder() + "/" + name, std::ios::binary) << content;
}

void readLine(const std::string& line) {
    Entry entry, again;
    std::string problem;
    if (!parseLine(line, entry, problem)) return fuzz::expect(!problem.empty(), "a problem is told");
    entry.ring = kKey;
    const std::string sealed = sealedLine(entry, digest);
    fuzz::expect(sealed.size() <= kLineBytesMax, "every line can be read again");
    fuzz::expect(parseLine(sealed, again, problem), "what was composed is an entry");
    fuzz::expect(isAttested(sealed, again, digest) == true, "its mac is over it");
    fuzz::expect(sealedLine(again, digest) == sealed, "and it is the same");
}

std::vector<std::string> read(Order order) {
    std::vector<std::string> found;
    Reader reader(folder(), order);
    for (Line line; reader.next(line);) found.push_back(line.problem.empty() ? line.text : line.problem);
    return found;
}

void readFile(const std::string& content) {
    put("trail.jsonl", content);
    const std::vector<std::string> forward = read(Order::OldestFirst), back = read(Order::NewestFirst);
    fuzz::expect(forward == std::vector<std::string>(back.rbegin(), back.rend()), "both ends lead to the same lines");
    (void)verify(folder(), digest);
}

void readPacked(const std::string& content) {
    put("trail-000000000001.jsonl.zst", content);
    (void)read(Order::OldestFirst);
    (void)read(Order::NewestFirst);
    std::filesystem::remove(folder() + "/trail-000000000001.jsonl.zst");
}

// A file, and behind a byte that JSON can't have a slot.
void start(const std::string& content) {
    const std::size_t end = std::min(content.find('\x1e'), content.size());
    put("trail.jsonl", content.substr(0, end));
    const WriterOptions options{folder(), 1 << 20, 1, digest, [] { return std::string(kKey); }};
    std::uint64_t last = 0;
    {
        Writer writer(options);
        (void)writer.open({content.substr(end == content.size() ? end : end + 1)});
        Entry entry;
        entry.what = "START";
        last = writer.append(entry);
        fuzz::expect(last != 0 && writer.sync(), "the trail goes on");
    }
    Writer writer(options);
    fuzz::expect(writer.open({}).damages.empty() && writer.status().head.seq == last, "from where it was left");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    std::filesystem::remove(folder() + "/trail.jsonl");
    const std::string content = fuzz::text(data + 1, size - 1);
    switch (data[0] % 4) {
        case 0:
            readLine(content);
            break;
        case 1:
            readFile(content);
            break;
        case 2:
            readPacked(content);
            break;
        default:
            start(content);
    }
    return 0;
}
