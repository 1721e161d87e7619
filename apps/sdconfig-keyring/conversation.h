// What is asked on standard input, and answered on standard output.
#pragma once

#include <glib.h>

#include <cstdint>
#include <list>
#include <string>
#include <string_view>

#include "apps/sdconfig-keyring/login_keyring.h"
#include "platform/sdsecurity/keyring_line.h"

namespace keyring {

class Conversation {
public:
    Conversation();
    ~Conversation();
    Conversation(const Conversation&) = delete;
    Conversation& operator=(const Conversation&) = delete;

    // Returns when the input has ended or the session bus has gone. False where a line of it made no sense, or nobody
    // took an answer.
    bool run();

private:
    struct Watch {
        std::uint64_t number;
        std::string id;
    };

    static gboolean onInput(int descriptor, GIOCondition condition, gpointer self);
    static gboolean onTime(gpointer self);
    bool takeInput();
    bool take(const sd::security::keyring::Line& request);
    bool answer(std::uint64_t number, const sd::security::SlotAnswer& answer);
    bool lookAt(const Watch& watch, Starting starting);
    void lookSoon();
    void lookIn(unsigned milliseconds);

    LoginKeyring mKeyring;
    sd::security::keyring::LineReader mInput;
    std::list<Watch> mWatches;
    GMainLoop* const mLoop;
    guint mTimer = 0;  // of the next look for what is watched
    bool mIsUnderstood = true;
};

}  // namespace keyring
