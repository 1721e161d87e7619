// Reads the settings of a program at its start, and keeps to the built-in ones where there is no service: there each
// call would wait a second for one.
//     ask_once
#include <cstdio>
#include <map>
#include <string>

#include "libsdconfig/sdconfig.h"

namespace {

// Whether the service answers. Where there is none this waits a second, and the reads that are left out would wait
// theirs; one that goes away after this costs no second.
bool serviceAnswers() {
    std::map<std::string, std::string> properties;
    return sd::SDConfig::GetInstance()->GetAllProperties(&properties);
}

}  // namespace

int main() {
    std::map<std::string, std::string> settings{
        {"example.theme", "light"}, {"example.language", "en"}, {"example.font", "sans"}, {"example.zoom", "100"},
        {"example.sound", "on"},    {"example.start", "home"},  {"example.proxy", ""},    {"example.update", "weekly"},
    };
    const bool ask = serviceAnswers();
    for (auto& [key, setting] : settings) {
        const std::string value = ask ? sd::SDConfig::GetInstance()->GetProperty(key) : "";
        if (!value.empty()) setting = value;
        std::printf("%s: %s\n", key.c_str(), setting.c_str());
    }
    return 0;
}
