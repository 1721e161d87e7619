// Settings whose keys, types, defaults and ranges are those of velmar.keys.json: sdconfig-keygen made the header of it.
//     typed_settings [SECONDS]        tells for so many seconds how the theme changes
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "libsdconfig/sdconfig_settings.h"
#include "typed_settings_keys.h"

namespace {

const char* inWords(velmar::ui::Theme theme) {
    return theme == velmar::ui::Theme::dark ? "dark" : "light";
}

// What get() gives its default for, this tells of.
void explain(const sd::Settings& settings) {
    const auto found = settings.tryGet(velmar::update::interval);
    if (found) std::printf("interval: %lld s\n", static_cast<long long>(found.value->count() / 1000));
    if (found.lack == sd::Lack::Unset) std::printf("interval: not set\n");
    if (found.lack == sd::Lack::Misfit) std::printf("interval: %s is none\n", found.text.c_str());
    if (found.lack == sd::Lack::NoService) std::printf("interval: there is no service\n");
}

}  // namespace

int main(int argc, char** argv) {
    const sd::Settings settings;
    std::printf("port: %d\n", settings.get(velmar::proxy::port));  // 8080 until it is set
    if (!settings.set(velmar::proxy::port, 3128)) return 1;
    std::printf("port: %d\n", settings.get(velmar::proxy::port));
    if (!settings.set(velmar::proxy::port, 70000)) std::printf("70000 is no port\n");

    if (!settings.set(velmar::printer::name("office"), "Größe 3")) return 1;
    std::printf("printer: %s\n", settings.get(velmar::printer::name("office")).c_str());
    explain(settings);

    std::printf("theme: %s\n", inWords(settings.get(velmar::ui::theme)));
    std::fflush(stdout);
    const sd::Watch watch = settings.watch(velmar::ui::theme, [](velmar::ui::Theme now) {
        std::printf("theme: %s\n", inWords(now));
        std::fflush(stdout);
    });
    std::this_thread::sleep_for(std::chrono::seconds(argc > 1 ? std::stoi(argv[1]) : 0));
    return 0;
}
