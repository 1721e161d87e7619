// What came of it, as an entry of the trail says.
#pragma once

namespace sd::came {

inline constexpr char kChanged[] = "changed";
inline constexpr char kStored[] = "stored";  // a row is another one, the effective value is what it was
inline constexpr char kSame[] = "same";      // nothing is another one
inline constexpr char kFailed[] = "failed";
inline constexpr char kGoverned[] = "governed";  // a policy of the machine has the say
inline constexpr char kRefused[] = "refused";
inline constexpr char kRead[] = "read";
inline constexpr char kDone[] = "done";

}  // namespace sd::came
