// The lines that sdconfig-keyring and who started it say to one another, over its standard input and output. A request,
// and the answer to it, begin with a number that the asking side chose:
//     <number> store <key>      <number> done <id>      a new item
//     <number> find <id>        <number> done <key>
//     <number> forget <id>      <number> done           it is not there any more
//     <number> watch <id>       <number> done <key>     as find, but not before there is something to say for good
//                               <number> not-now <reason>
//                               <number> refused <reason>
// A key and an id are digits (hex.h), a reason is printable ASCII. Lines of another form end the conversation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/sdsecurity/key_ring.h"

namespace sd::security::keyring {

constexpr std::size_t kMaxLine = 256;  // with its line feed
constexpr std::size_t kItemIdSize = 16;

constexpr std::string_view kStore = "store";
constexpr std::string_view kFind = "find";
constexpr std::string_view kForget = "forget";
constexpr std::string_view kWatch = "watch";

constexpr std::string_view kDone = "done";
constexpr std::string_view kNotNow = "not-now";
constexpr std::string_view kRefused = "refused";

bool isItemId(std::string_view text);

// The key of these digits; nothing where they are those of none.
std::optional<SecretBytes> keyOfDigits(std::string_view digits);

struct Line {
    std::uint64_t number;
    std::string_view word;  // what is asked, or what became of it
    std::string_view rest;  // behind the blank after the word, or ""
};

// text: without its line feed; the result refers to it. Nothing where it begins otherwise, or holds more than printable
// ASCII.
std::optional<Line> parseLine(std::string_view text);
// With its line feed.
SecretBytes formatLine(std::uint64_t number, std::string_view word, std::string_view rest);

// Takes what comes apart into lines.
class LineReader {
public:
    LineReader() : mBytes(kMaxLine) {}

    // Reads once, and waits for that. False at the end, and where a line is longer than any may be.
    bool read(int descriptor);
    bool isOverlong() const { return mBegin == 0 && mEnd == mBytes.size(); }
    // The next whole line, without its line feed; it stands until read() is called. Nothing where there is none.
    std::optional<std::string_view> next();

private:
    SecretBytes mBytes;
    std::size_t mBegin = 0;  // of what next() has not given yet
    std::size_t mEnd = 0;
};

}  // namespace sd::security::keyring
