#include "descriptions/words.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace sd {

namespace {

std::string fromEnvironment(const char* name) {
    const char* const value = std::getenv(name);
    return value ? value : "";
}

void addLocale(const std::string& name, std::vector<std::string>& locales) {
    const std::string locale = name.substr(0, name.find('.'));
    const std::size_t modifier = std::min(name.find('@'), name.size());
    if (locale.empty() || locale == "C" || locale == "POSIX") return;
    const std::string language = locale.substr(0, locale.find_first_of("_@"));
    locales.push_back(locale.substr(0, locale.find('@')) + name.substr(modifier));
    if (modifier < name.size()) locales.push_back(language + name.substr(modifier));
    locales.push_back(locale.substr(0, locale.find('@')));
    locales.push_back(language);
}

}  // namespace

std::vector<std::string> wantedLocales() {
    std::string locale;
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"})
        if (locale.empty()) locale = fromEnvironment(name);
    std::vector<std::string> locales;
    addLocale(locale, locales);
    if (locales.empty()) return {};
    std::vector<std::string> preferred;
    std::istringstream languages(fromEnvironment("LANGUAGE"));
    for (std::string language; std::getline(languages, language, ':');) addLocale(language, preferred);
    preferred.insert(preferred.end(), locales.begin(), locales.end());
    return preferred;
}

KeyWords wordsIn(const std::vector<std::string>& locales, const KeyDescription& description) {
    KeyWords words;
    const auto add = [&words](const KeyWords& more) {
        if (words.summary.empty()) words.summary = more.summary;
        if (words.description.empty()) words.description = more.description;
        if (words.unit.empty()) words.unit = more.unit;
        words.values.insert(more.values.begin(), more.values.end());
    };
    for (const std::string& locale : locales) {
        const auto found = description.translations.find(locale);
        if (found != description.translations.end()) add(found->second);
    }
    add(description.words);
    return words;
}

}  // namespace sd
