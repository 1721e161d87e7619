#include "descriptions/outline.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

#include "base/escaped.h"

namespace sd {

namespace {

constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
constexpr std::size_t kDepthMax = 64;

constexpr char kShape[] = R"(write {"keys": {"KEY": {"type": "bool", "summary": "..."}}})";

// What ends a run of bytes that mean nothing to the outline.
enum class Mark : unsigned char { None, Quote, Open, Close };

constexpr std::array<Mark, 256> makeMarks() {
    std::array<Mark, 256> marks{};
    marks[static_cast<unsigned char>('"')] = Mark::Quote;
    marks[static_cast<unsigned char>('{')] = marks[static_cast<unsigned char>('[')] = Mark::Open;
    marks[static_cast<unsigned char>('}')] = marks[static_cast<unsigned char>(']')] = Mark::Close;
    return marks;
}

constexpr std::array<Mark, 256> kMarks = makeMarks();

class Outliner {
public:
    explicit Outliner(std::string_view text) : mText(text), mAt(text.data()), mEnd(text.data() + text.size()) {}

    Outline take() {
        if (!readFile()) mFound.descriptions.clear();
        return std::move(mFound);
    }

private:
    using TakeMember = bool (Outliner::*)(std::string_view name);

    bool readFile() {
        if (mText.substr(0, kByteOrderMark.size()) == kByteOrderMark)
            return fail("begins with a byte order mark", "save it as UTF-8 without one");
        if (!isNext('{')) return fail("is no JSON object", kShape);
        if (!readMembers(&Outliner::takeField)) return false;
        if (skipBlanks()) return fail("goes on behind its last bracket", "delete what follows");
        return mHasKeys || fail("has no \"keys\"", kShape);
    }

    bool fail(std::string what, const char* remedy) {
        mFound.fault =
            DescriptionFault{LineCounter(mText).lineOf(mText.substr(static_cast<std::size_t>(mAt - mText.data()))), "",
                             "", std::move(what), remedy};
        return false;
    }

    bool failAtPlace() {
        if (mAt == mEnd) return fail("ends too early, or is no JSON", "look for a bracket or a quote that is missing");
        return fail("is no JSON at this place", "look for a comma, a quote or a bracket there, or right before");
    }

    bool skipBlanks() {
        while (mAt != mEnd && (*mAt == ' ' || *mAt == '\n' || *mAt == '\t' || *mAt == '\r')) ++mAt;
        return mAt != mEnd;
    }

    bool isNext(char c) { return skipBlanks() && *mAt == c; }

    bool expect(char c) {
        if (!isNext(c)) return failAtPlace();
        ++mAt;
        return true;
    }

    // Takes an object's members one by one.
    bool readMembers(TakeMember takeMember) {
        if (!expect('{')) return false;
        if (isNext('}')) return expect('}');
        do {
            std::string_view name;
            if (!expect('"') || !readName(name) || !expect(':') || !(this->*takeMember)(name)) return false;
        } while (isNext(',') && expect(','));
        return expect('}');
    }

    bool readName(std::string_view& name) {
        const char* const begin = mAt;
        if (!skipText()) return failAtPlace();
        name = {begin, static_cast<std::size_t>(mAt - begin) - 1};
        return true;
    }

    // From behind the quotation mark at its beginning to behind that at its end.
    bool skipText() {
        while (true) {
            const void* const found = std::memchr(mAt, '"', static_cast<std::size_t>(mEnd - mAt));
            if (!found) {
                mAt = mEnd;
                return false;
            }
            const char* const quote = static_cast<const char*>(found);
            const char* slashes = quote;
            while (slashes != mAt && slashes[-1] == '\\') --slashes;
            mAt = quote + 1;
            if ((quote - slashes) % 2 == 0) return true;
        }
    }

    bool takeField(std::string_view name) {
        if (name != "keys") {
            if (name == "$schema" || name == "description") return skipValue();
            return fail("has the field " + sd::quoted(std::string(name)) + ", which no file of descriptions has",
                        R"(those are "keys", "description" and "$schema")");
        }
        if (mHasKeys) return fail("has \"keys\" twice", "put the keys of both into one");
        mHasKeys = true;
        return isNext('{') ? readMembers(&Outliner::takeDescription)
                           : fail("has \"keys\" that are no JSON object", kShape);
    }

    bool takeDescription(std::string_view name) {
        skipBlanks();
        const char* const begin = mAt;
        if (!skipValue()) return false;
        mFound.descriptions.push_back({name, {begin, static_cast<std::size_t>(mAt - begin)}});
        return true;
    }

    bool skipValue() {
        if (isNext('"')) {
            ++mAt;
            return skipText() || failAtPlace();
        }
        if (mAt != mEnd && (*mAt == '{' || *mAt == '[')) return skipNested();
        const char* const begin = mAt;
        while (mAt != mEnd && !std::strchr(",]} \t\r\n", *mAt)) ++mAt;
        return mAt != begin || failAtPlace();
    }

    // An object or an array, whole.
    bool skipNested() {
        std::array<char, kDepthMax> open{};
        std::size_t depth = 0;
        for (; mAt != mEnd; ++mAt) {
            switch (kMarks[static_cast<unsigned char>(*mAt)]) {
                case Mark::None:
                    continue;
                case Mark::Quote:
                    ++mAt;
                    if (!skipText()) return failAtPlace();
                    --mAt;
                    continue;
                case Mark::Open:
                    if (depth == kDepthMax)
                        return fail("has brackets in brackets, 64 deep", "no description needs that");
                    open[depth++] = *mAt;
                    continue;
                case Mark::Close:
                    // In ASCII a bracket and its counterpart are two apart.
                    if (open[--depth] + 2 != *mAt) return failAtPlace();
                    if (depth > 0) continue;
                    ++mAt;
                    return true;
            }
        }
        return failAtPlace();
    }

    const std::string_view mText;
    const char* mAt;
    const char* const mEnd;
    bool mHasKeys = false;
    Outline mFound;
};

}  // namespace

Outline outlineOf(std::string_view text) {
    return Outliner(text).take();
}

int LineCounter::lineOf(std::string_view piece) {
    const auto next = [&] {
        return static_cast<const char*>(std::memchr(mAt, '\n', static_cast<std::size_t>(piece.data() - mAt)));
    };
    for (const char* end = next(); end; end = next()) {
        ++mLine;
        mAt = end + 1;
    }
    mAt = piece.data();
    return mLine;
}

}  // namespace sd
