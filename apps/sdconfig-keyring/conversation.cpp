#include "apps/sdconfig-keyring/conversation.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include <glib-unix.h>

#include "platform/sdsecurity/hex.h"

namespace keyring {

namespace {

using sd::security::SecretBytes;
using sd::security::SlotAnswer;
using Outcome = SlotAnswer::Outcome;
namespace lines = sd::security::keyring;

constexpr std::size_t kMostWatches = 8;
constexpr guint kSettlingMs = 20;     // after a change the keyring is looked at once, for all changes meanwhile
constexpr guint kSilenceMs = 10'000;  // one that does not answer won't tell when it can again

bool writeAll(const SecretBytes& bytes) {
    for (std::size_t written = 0; written < bytes.size();) {
        const ssize_t count = ::write(STDOUT_FILENO, bytes.data() + written, bytes.size() - written);
        if (count < 0 && errno != EINTR) return false;
        if (count > 0) written += static_cast<std::size_t>(count);
    }
    return true;
}

std::string_view textOf(const SecretBytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

Conversation::Conversation()
    : mKeyring([this] { lookSoon(); }, [this] { g_main_loop_quit(mLoop); }), mLoop(g_main_loop_new(nullptr, FALSE)) {}

Conversation::~Conversation() {
    if (mTimer) g_source_remove(mTimer);
    g_main_loop_unref(mLoop);
}

bool Conversation::run() {
    g_unix_fd_add(STDIN_FILENO, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), onInput, this);
    g_main_loop_run(mLoop);
    return mIsUnderstood;
}

gboolean Conversation::onInput(int descriptor, GIOCondition /*condition*/, gpointer self) {
    auto& conversation = *static_cast<Conversation*>(self);
    const bool goesOn = conversation.mInput.read(descriptor);
    if (!goesOn) conversation.mIsUnderstood = !conversation.mInput.isOverlong();
    if (goesOn && conversation.takeInput()) return G_SOURCE_CONTINUE;
    g_main_loop_quit(conversation.mLoop);
    return G_SOURCE_REMOVE;
}

bool Conversation::takeInput() {
    while (const std::optional<std::string_view> text = mInput.next()) {
        const std::optional<lines::Line> request = lines::parseLine(*text);
        mIsUnderstood = request && take(*request);
        if (!mIsUnderstood) return false;
    }
    return true;
}

bool Conversation::take(const lines::Line& request) {
    if (request.word == lines::kStore) {
        const std::optional<SecretBytes> key = lines::keyOfDigits(request.rest);
        return key && answer(request.number, mKeyring.store(*key));
    }
    if (!lines::isItemId(request.rest)) return false;
    const std::string id(request.rest);
    if (request.word == lines::kFind) return answer(request.number, mKeyring.find(id, Starting::Allowed));
    if (request.word == lines::kForget) return answer(request.number, mKeyring.forget(id));
    if (request.word != lines::kWatch || mWatches.size() == kMostWatches) return false;
    const Watch watch{request.number, id};
    if (!lookAt(watch, Starting::Allowed)) mWatches.push_back(watch);
    return true;
}

bool Conversation::answer(std::uint64_t number, const SlotAnswer& answer) {
    if (answer.outcome == Outcome::NotNow) return writeAll(lines::formatLine(number, lines::kNotNow, answer.reason));
    if (answer.outcome == Outcome::Refused) return writeAll(lines::formatLine(number, lines::kRefused, answer.reason));
    if (!answer.sealed.empty()) return writeAll(lines::formatLine(number, lines::kDone, answer.sealed));
    SecretBytes digits;
    digits.reserve(2 * sd::security::kKeySize);
    sd::security::appendHex(answer.key, digits);
    return writeAll(lines::formatLine(number, lines::kDone, textOf(digits)));
}

// Whether that was answered.
bool Conversation::lookAt(const Watch& watch, Starting starting) {
    const SlotAnswer found = mKeyring.find(watch.id, starting);
    if (found.outcome != Outcome::NotNow) return answer(watch.number, found);
    if (found.reason == LoginKeyring::kSilent) lookIn(kSilenceMs);
    return false;
}

// Once for all that changes until then. It starts no service: one that ends again and again would be started again and
// again.
gboolean Conversation::onTime(gpointer self) {
    auto& conversation = *static_cast<Conversation*>(self);
    conversation.mTimer = 0;
    conversation.mWatches.remove_if([&](const Watch& watch) { return conversation.lookAt(watch, Starting::Left); });
    return G_SOURCE_REMOVE;
}

void Conversation::lookSoon() {
    if (mWatches.empty()) return;
    if (mTimer) g_source_remove(mTimer);
    mTimer = 0;
    lookIn(kSettlingMs);
}

void Conversation::lookIn(guint milliseconds) {
    if (!mTimer) mTimer = g_timeout_add(milliseconds, onTime, this);
}

}  // namespace keyring
