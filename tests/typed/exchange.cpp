// One of those who exchange values of every type: as a program with typed settings, or, with Qt, with properties.
//     exchange set|get WRITER
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "exchange_keys.h"
#ifdef QT_CORE_LIB
#include <QGuiApplication>

#include "libsdconfig/sdconfig-qt.h"
#else
#include "libsdconfig/sdconfig_settings.h"
#endif

namespace {

using namespace std::chrono_literals;

template <typename Visit>
void forEach(const std::string& writer, Visit visit) {
    constexpr auto kLeast = std::numeric_limits<std::int64_t>::min(), kMost = std::numeric_limits<std::int64_t>::max();
    visit(exchange::bool_(writer), true);
    visit(exchange::short_(writer), 65535);
    visit(exchange::int_(writer), kLeast);
    visit(exchange::number(writer), -1e300);
    visit(exchange::string(writer), "grün € 𝄞 \"x\"");
    visit(exchange::plain(writer), "");
    visit(exchange::enum_(writer), exchange::Enum::gr_n);
    visit(exchange::duration(writer), 24h * 30);
    visit(exchange::size(writer), sd::Bytes{kMost});
    visit(exchange::url(writer), "https://münchen.example/ä?b=%20");
    visit(exchange::path(writer), "/srv/größe");
    visit(exchange::color(writer), sd::Color{0xff000080});
    visit(exchange::json(writer), R"({"ä":[1,null,"ö"]})");
    visit(exchange::strings(writer), std::vector<std::string>{"", "ü\n"});
    visit(exchange::ints(writer), std::vector{kLeast, kMost});
    visit(exchange::durations(writer), std::vector<std::chrono::milliseconds>{0ms, 24h + 1ms});
    visit(exchange::enums(writer), std::vector{exchange::Enums::two, exchange::Enums::one});
}

#ifdef QT_CORE_LIB
template <typename T>
bool store(const sd::Key<T>& key, const T& value) {
    bool isStored = true;
    sd::QtSetting setting(key);
    QObject::connect(&setting, &sd::QtSetting::refused, [&] { isStored = false; });
    return setting.setProperty("value", sd::QtForm<T>::print(value)) && isStored;
}

template <typename T>
T load(const sd::Key<T>& key) {
    return sd::fromVariant<T>(sd::QtSetting(key).property("value")).value();
}
#else
template <typename T>
bool store(const sd::Key<T>& key, const T& value) {
    return sd::Settings().set(key, value);
}

template <typename T>
T load(const sd::Key<T>& key) {
    return sd::Settings().get(key);
}
#endif

}  // namespace

int main(int argc, char** argv) {
#ifdef QT_CORE_LIB
    const QGuiApplication application(argc, argv);
#endif
    if (argc != 3) return 2;
    const bool isWriting = std::string(argv[1]) == "set";
    forEach(argv[2], [&](const auto& key, const auto& value) {
        using Value = typename std::decay_t<decltype(key)>::Value;
        if (isWriting && !store<Value>(key, value)) std::exit(1);
        if (isWriting) return;
        const std::string name(key.name.substr(key.name.rfind('.') + 1));
        std::printf("%s %s\n", name.c_str(), sd::Form<Value>::print(load<Value>(key)).c_str());
    });
    return 0;
}
