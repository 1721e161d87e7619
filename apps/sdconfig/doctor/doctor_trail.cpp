#include "apps/sdconfig/doctor/doctor_checks.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/service/trail_calls.h"

namespace cli {

Checks checkTrail(const Service& service) {
    constexpr char kTrail[] = "trail";
    const auto trail = trailState(service);
    if (!trail) return {};
    return {
        {kTrail, textOf(*trail),
         trail->isAmiss() ? "see that the data folder can be written and has room; what waits is written then" : ""}};
}

}  // namespace cli
