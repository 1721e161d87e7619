#include "apps/sdconfig/report/page.h"

#include <openssl/evp.h>

#include <array>
#include <string_view>

#include "apps/sdconfig/report/page_parts.h"
#include "report_files.h"

namespace cli {

namespace {

// The source of a style sheet or a script that a page's own policy allows: by its digest alone.
std::string sourceByDigest(std::string_view text) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    std::array<unsigned char, std::size_t{2} * EVP_MAX_MD_SIZE> base64{};
    unsigned int size = 0;
    if (EVP_Digest(text.data(), text.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) return "'none'";
    EVP_EncodeBlock(base64.data(), digest.data(), static_cast<int>(size));
    return "'sha256-" + std::string(reinterpret_cast<const char*>(base64.data())) + "'";
}

void writePolicy(const Report& /*report*/, Markup& page) {
    static const std::string policy = "default-src 'none'; style-src " + sourceByDigest(kPageStyle) + "; script-src " +
                                      sourceByDigest(kPageScript) + "; base-uri 'none'; form-action 'none'";
    page << Markup::BuiltIn{policy};
}

// What stands in the template as {{NAME}}.
struct Slot {
    std::string_view name;
    void (*write)(const Report& report, Markup& page);
};

constexpr Slot kSlots[] = {
    {"policy", writePolicy},
    {"style", [](const Report&, Markup& page) { page << Markup::BuiltIn{kPageStyle}; }},
    {"script", [](const Report&, Markup& page) { page << Markup::BuiltIn{kPageScript}; }},
    {"title", [](const Report& report, Markup& page) { page.text(report.title); }},
    {"made",
     [](const Report& report, Markup& page) {
         page << "Made ";
         page.text(report.made);
     }},
    {"version", [](const Report&, Markup& page) { page << SDCONFIG_VERSION; }},
    {"verdict", writeVerdict},
    {"words", writeWords},
    {"tally", writeTally},
    {"findings", writeFindings},
    {"unseen", writeUnseen},
    {"whatif-count", [](const Report& report, Markup& page) { page.number(report.whatIf->changes.size()); }},
    {"whatif-words", writePlanWords},
    {"whatif-rows", writePlan},
    {"keys-count", [](const Report& report, Markup& page) { page.number(report.keys.size()); }},
    {"keys-rows", writeKeys},
    {"policies-count", [](const Report& report, Markup& page) { page.number(report.policies.all().size()); }},
    {"policies", writePolicyFiles},
    {"properties-count",
     [](const Report& report, Markup& page) {
         std::size_t count = 0;
         for (const PropertyFile& file : report.propertyFiles) count += file.definitions.size();
         page.number(count);
     }},
    {"properties", writePropertyFiles},
    {"trail-count", [](const Report& report, Markup& page) { page.number(report.trail.size()); }},
    {"trail-words", writeTrailWords},
    {"trail-rows", writeTrail},
    {"environment", writeEnvironment},
};

// What stands in the template between {{?NAME}} and {{/NAME}}, where it holds alone.
struct Condition {
    std::string_view name;
    bool (*holds)(const Report& report);
};

constexpr Condition kConditions[] = {
    {"secrets", [](const Report& report) { return report.holdsSecrets; }},
    {"whatif", [](const Report& report) { return report.whatIf.has_value(); }},
    {"whatif-rows", [](const Report& report) { return !report.whatIf->changes.empty(); }},
    {"keys-rows", [](const Report& report) { return !report.keys.empty(); }},
    {"no-keys", [](const Report& report) { return report.keys.empty(); }},
    {"trail-rows", [](const Report& report) { return !report.trail.empty(); }},
};

template <class All>
const auto* find(const All& all, std::string_view name) {
    for (const auto& one : all)
        if (one.name == name) return &one;
    return static_cast<decltype(&all[0])>(nullptr);
}

void fill(std::string_view rest, const Report& report, Markup& page) {
    constexpr std::string_view kOpen = "{{", kClose = "}}";
    for (;;) {
        const std::size_t open = rest.find(kOpen);
        page << Markup::BuiltIn{rest.substr(0, open)};
        if (open == std::string_view::npos) return;
        const std::size_t close = rest.find(kClose, open);
        const std::string_view name = rest.substr(open + kOpen.size(), close - open - kOpen.size());
        rest.remove_prefix(close + kClose.size());
        if (name.front() == '?') {
            const std::string end = "{{/" + std::string(name.substr(1)) + "}}";
            const std::size_t length = rest.find(end);
            const Condition* const condition = find(kConditions, name.substr(1));
            if (condition && condition->holds(report)) fill(rest.substr(0, length), report, page);
            rest.remove_prefix(length + end.size());
        } else if (const Slot* const slot = find(kSlots, name)) {
            slot->write(report, page);
        }
    }
}

}  // namespace

std::string pageOf(const Report& report) {
    Markup page;
    fill(kPageTemplate, report, page);
    return page.get();
}

void writeLink(const Report& report, const std::string& key, bool isProperty, Markup& page) {
    const std::string name = nameOf(key, isProperty);
    if (!report.names.count(name)) {
        page.text(key);
        return;
    }
    page << "<a href=#";
    page.name(name) << ">";
    page.text(key) << "</a>";
}

}  // namespace cli
