// What every operation of the facades begins with.
#pragma once

#include <exception>

#include "libsdconfig/sdconfig_client.h"
#include "platform/velmarlog/velmarlog.h"

namespace sd {

// Runs `operation` with the process's client and returns its result; `failure`, with a line in the name of `function`,
// when there is no client, or memory runs out.
template <typename Result, typename Operation>
Result withClient(const char* function, Result failure, Operation operation) try {
    if (const auto client = SDConfigClient::GetInstance()) return operation(*client);
    velmarLogPrint(0, 7, "sdconfig", "%s %s(%d): no sdconfig client!!!", "sdconfig_sdbus", function, __LINE__);
    return failure;
} catch (const std::exception& error) {
    velmarLogPrint(0, 7, "sdconfig", "%s %s(%d): %s", "sdconfig_sdbus", function, __LINE__, error.what());
    return failure;
}

}  // namespace sd
