// Settings with types, upon the facades. What sdconfig-keygen writes, or a program itself, are the keys:
//     inline constexpr sd::Key<int> port{"velmar.proxy.port", sd::Store::Property, 8080, {1, 65535}};
//     sd::Settings settings;
//     settings.set(port, 3128);
//     const sd::Watch watch = settings.watch(port, [](int now) { ... });
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "libsdconfig/dmconfig.h"
#include "libsdconfig/sdconfig.h"
#include "libsdconfig/sdconfig_key.h"
#include "libsdconfig/sdconfig_text.h"
#include "libsdconfig/sdconfig_watch.h"

namespace sd {

// Why a key has no value.
enum class Lack {
    None,
    Unset,       // or empty, which is the same
    Unreadable,  // what is stored can't be opened
    NoService,   // nobody answered
    Misfit       // the text is no value of the key's type, or one out of its range
};

// A value, or why there is none; of a misfit, the text, as it was set.
template <typename T>
struct Found {
    std::optional<T> value{};
    Lack lack = Lack::None;
    std::string text{};

    explicit operator bool() const { return value.has_value(); }
};

// Reads, writes and watches keys. Each operation is one call of the facade (SDConfig: at most 5000 ms, a level-7 line
// where it fails), and takes well under 2 us beside that. Nothing throws; where memory ends in an operation, so does
// the program, while the thread that watches looks again later. Any thread; a copy shares the thread that watches.
class Settings {
public:
    // What a stored value beyond a key's range reads as.
    enum class Beyond { Default, Clamped };

    template <typename T>
    using Callback = std::function<void(const typename Key<T>::Value&)>;

    explicit Settings(Beyond beyond = Beyond::Default) : mBeyond(beyond) {}

    // The value; the key's default where there is none, for whatever reason.
    template <typename T>
    T get(const Key<T>& key) const noexcept {
        auto found = tryGet(key);
        return found ? std::move(*found.value) : key.defaultValue();
    }

    // The value, or why there is none.
    template <typename T>
    Found<T> tryGet(const Key<T>& key) const noexcept {
        return find(key, mBeyond);
    }

    // False, with nothing sent, where the value doesn't fit; and where it is not known to be stored.
    template <typename T>
    bool set(const Key<T>& key, const typename Key<T>::Value& value) const noexcept {
        if (!fits(key, value)) return false;
        SDConfig& config = *SDConfig::GetInstance();
        const std::string name(key.name);
        return key.store == Store::Secure ? config.SetSecure(name, Form<T>::print(value))
                                          : config.SetProperty(name, Form<T>::print(value));
    }

    // Whether the key can have the value: it is in its range, and its text reads back. An empty text reads as unset, so
    // it fits where the default is empty, too. Patterns of a description are the command line's to check.
    template <typename T>
    static bool fits(const Key<T>& key, const typename Key<T>::Value& value) noexcept {
        const std::string text = Form<T>::print(value);
        if (text.find('\0') != std::string::npos) return false;
        if (text.empty()) return std::is_same_v<T, std::string> && key.defaultValue() == T{};
        return key.range.clamped(value) == value;
    }

    // Deletes what is stored, so that the key reads as its default, or as what a policy or a build.prop file says.
    template <typename T>
    bool unset(const Key<T>& key) const noexcept {
        SDConfig& config = *SDConfig::GetInstance();
        const std::string name(key.name);
        return key.store == Store::Secure ? config.DeleteSecure(name) : config.DeleteProperty(name);
    }

    // Whether a policy has the say, so that setting the key has no effect.
    template <typename T>
    bool isGoverned(const Key<T>& key) const noexcept {
        return key.store == Store::Secure && DMConfig::GetInstance()->isStrongControl(std::string(key.name));
    }

    // Calls back when what get() gives is another value than before, from now on, as long as the watch that is returned
    // lives: on a thread of these settings, one callback at a time. It may call anything, and must not throw but for
    // std::bad_alloc, after which it is called again. Restarts of the service are outlived: what changed meanwhile is
    // told when it is back. A forked child that watches makes settings of its own.
    template <typename T>
    [[nodiscard]] Watch watch(const Key<T>& key, Callback<T> callback) const noexcept;

private:
    template <typename T>
    class Watched;

    // The text as it was set; why there is none, where that is so.
    static Lack read(Store store, const std::string& name, std::string& text) {
        SDConfig& config = *SDConfig::GetInstance();
        const bool isSecure = store == Store::Secure;
        switch (isSecure ? config.ReadSecure(name, &text) : config.ReadProperty(name, &text)) {
            case SDConfig::Reading::NoAnswer:
                return Lack::NoService;
            case SDConfig::Reading::Unreadable:
                return Lack::Unreadable;
            case SDConfig::Reading::Unset:
                return Lack::Unset;
            default:
                if (isSecure) text = textAsSet(text);
                return Lack::None;
        }
    }

    template <typename T>
    static Found<T> find(const Key<T>& key, Beyond beyond) {
        std::string text;
        if (const Lack lack = read(key.store, std::string(key.name), text); lack != Lack::None) return {{}, lack, {}};
        if (auto value = Form<T>::parse(text)) {
            T nearest = key.range.clamped(*value);
            if (beyond == Beyond::Clamped || nearest == *value) return {std::move(nearest), Lack::None, {}};
        }
        return {{}, Lack::Misfit, std::move(text)};
    }

    Beyond mBeyond;
    std::shared_ptr<detail::Watcher> mWatcher = std::make_shared<detail::Watcher>();
};

// A key that is watched, and what it was last known to read as.
template <typename T>
class Settings::Watched final : public detail::WatchedKey {
public:
    Watched(const Key<T>& key, Beyond beyond, Callback<T> callback)
        : WatchedKey(std::string(key.name)), mKey(key), mBeyond(beyond), mCallback(std::move(callback)) {
        mKey.name = name();
        mKnown = value().value_or(key.defaultValue());
    }

    void look() override {
        auto now = value();
        if (!now || *now == mKnown) return;
        mCallback(*now);
        mKnown = std::move(*now);
    }

private:
    // Nothing without a service: what is not known has not changed.
    std::optional<T> value() const {
        auto found = find(mKey, mBeyond);
        if (found.lack == Lack::NoService) return std::nullopt;
        return found ? std::move(found.value) : mKey.defaultValue();
    }

    Key<T> mKey;
    const Beyond mBeyond;
    const Callback<T> mCallback;
    T mKnown{};
};

template <typename T>
Watch Settings::watch(const Key<T>& key, Callback<T> callback) const noexcept {
    return Watch(mWatcher, std::make_shared<Watched<T>>(key, mBeyond, std::move(callback)));
}

}  // namespace sd
