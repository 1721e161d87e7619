// Types and words that the facades, the stores and the wire share.
#pragma once

#include <map>
#include <string>

namespace sd {

// A policy: its value to its priority. One entry; the value "null_value" says that the policy sets no value.
using PolicyMap = std::map<std::string, int>;

// URIs (the configuration keys that policies govern) to their policies.
using PolicyList = std::map<std::string, PolicyMap>;

inline constexpr char kNullValue[] = "null_value";

// The priority at which a locally stored secure value stands: a policy wins over it only from above.
inline constexpr int kLocalPriority = 5;

}  // namespace sd
