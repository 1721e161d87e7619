// The page of a report: whatever keys, values and names are, its elements and attributes are those of a page of plain
// words, and its text is theirs.
#include "apps/sdconfig/report/page.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>

#include "base/escaped.h"
#include "fuzz/support.h"

namespace {

// Makes a report of texts; the same one of plain words, where it is told to.
class Maker {
public:
    Maker(const uint8_t* data, std::size_t size, bool isPlain) : mInput(data, size), mIsPlain(isPlain) {}

    cli::Report make() {
        cli::Report report;
        report.title = text();
        report.holdsSecrets = mInput.ConsumeBool();
        report.words = {text(), text()};
        report.checks.push_back({text(), text(), mInput.ConsumeBool() ? text() : ""});
        report.unseen.push_back({text(), text()});
        if (mInput.ConsumeBool()) report.whatIf = plan();
        while (mInput.remaining_bytes() > 0 && report.keys.size() < 4) report.keys.push_back(key());
        report.machine.emplace();
        report.machine->reading.files.push_back({text(), state(), text(), 3});
        report.machine->reading.nobody["name"] = text();
        report.policies = cli::MachineTable({{text(), {"", 1}, report.machine->reading.files[0].path, 1, ""}});
        report.propertyFiles.push_back({text(), false, true, {{text(), text(), 1}}});
        for (const cli::ReportedKey& one : report.keys) report.names.insert(cli::nameOf(one.key, one.isProperty));
        if (report.whatIf) report.names.insert(cli::nameOf(report.whatIf->changes.front().key, false));
        const auto first = report.keys.empty() ? std::nullopt : std::optional(report.keys.front());
        const auto linked = first ? std::optional(first->key) : std::nullopt;
        report.trail.push_back({7, text(), text(), mInput.ConsumeBool(), linked, first && first->isProperty, text()});
        report.environment.emplace_back(text(), text());
        return report;
    }

private:
    // Empty where the other one is.
    std::string text() {
        std::string bytes = mInput.ConsumeRandomLengthString(40);
        return mIsPlain && !bytes.empty() ? "word" : bytes;
    }

    sd::PolicySource::State state() {
        return static_cast<sd::PolicySource::State>(mInput.ConsumeIntegral<uint8_t>() % 6);
    }

    cli::ReportedValue value() {
        const auto kind = static_cast<cli::ReportedValue::Kind>(mInput.ConsumeIntegral<uint8_t>() % 3);
        return {kind, text()};
    }

    cli::Source source() { return static_cast<cli::Source>(mInput.ConsumeIntegral<uint8_t>() % cli::kSources); }

    cli::ReportedKey key() {
        cli::ReportedKey one;
        one.key = text();
        one.isProperty = mInput.ConsumeBool();
        one.value = value();
        one.source = source();
        one.why = text();
        one.place = text();
        one.description = text();
        one.lost = {text()};
        if (mInput.ConsumeBool()) one.described = cli::ReportedDescription{text(), text(), text(), text()};
        if (mInput.ConsumeBool()) one.change = cli::ReportedChange{text(), text()};
        return one;
    }

    cli::WhatIf plan() {
        cli::WhatIf plan;
        plan.files = {text()};
        plan.changes.push_back({text(), {value(), source(), text()}, {value(), source(), text()}});
        plan.leftOut.emplace_back(text(), text());
        plan.problem = text();
        return plan;
    }

    FuzzedDataProvider mInput;
    const bool mIsPlain;
};

// The tags alone, and of those the names of links not, which are made of texts.
std::string tagsOf(const std::string& page) {
    std::string tags;
    for (std::size_t at = page.find('<', page.find("<body")); at != std::string::npos; at = page.find('<', at + 1)) {
        const std::string tag = page.substr(at, page.find('>', at) - at);
        const bool isNamed = tag.compare(0, 7, "<tr id=") == 0 || tag.compare(0, 2, "<a") == 0;
        tags += isNamed ? tag.substr(0, tag.find('=')) : tag;
        if (tag == "<script") break;  // whose text is ours
    }
    return tags;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string page = cli::pageOf(Maker(data, size, false).make());
    fuzz::expect(tagsOf(page) == tagsOf(cli::pageOf(Maker(data, size, true).make())), "no tag is made of a text");
    fuzz::expect(sd::isUtf8(page), "the page is UTF-8");
    const auto isBad = [](unsigned char c) { return (c < ' ' && c != '\n') || c == 0x7f; };
    fuzz::expect(std::none_of(page.begin(), page.end(), isBad), "the page holds no control characters");
    fuzz::expect(page.find("\xe2\x80\xae") == std::string::npos, "nothing turns the direction of writing");
    return 0;
}
