// The arguments of a message, as a test writes them: bool, int (8 bits) and text.
#pragma once

#include <cstdint>
#include <type_traits>

#include "platform/sdbus/sdbus.h"

namespace test {

template <typename... Arguments>
void appendAll(SDBusMessage& message, const Arguments&... arguments) {
    [[maybe_unused]] const auto append = [&message](const auto& argument) {
        using Value = std::decay_t<decltype(argument)>;
        if constexpr (std::is_same_v<Value, bool>)
            message.appendBool(argument);
        else if constexpr (std::is_same_v<Value, int>)
            message.appendInt8(static_cast<int8_t>(argument));
        else
            message.appendString(argument);
    };
    (append(arguments), ...);
}

}  // namespace test
