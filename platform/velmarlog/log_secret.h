// A value in a log line, whichever log layer the process has. For .cpp files only.
#pragma once

#include <string>

#include "platform/velmarlog/velmarlog.h"

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
