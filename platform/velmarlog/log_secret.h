// A value in a log line, whichever log layer the process has. For .cpp files only.
#pragma once

#include <string>

#include "platform/velmarlog/velmarlog.h"

// A host's own layer may be older than these.
VELMARLOG_API void velmarLogSetSecretsShown(bool shown) __attribute__((weak));
VELMARLOG_API std::string velmarLogHidden(const std::string& value) __attribute__((weak));

namespace velmarlog {

// Refers to the value where it is shown: that may be 16 MiB, and a line is written where memory is short, too.
class Secret {
public:
    explicit Secret(const std::string& value) : mValue(value), mHidden(velmarLogHidden ? velmarLogHidden(value) : "") {}
    const char* text() const { return (mHidden.empty() ? mValue : mHidden).c_str(); }

private:
    const std::string& mValue;
    const std::string mHidden;
};

}  // namespace velmarlog

// As an argument of LOG.
#define SECRET(value) velmarlog::Secret(value).text()
