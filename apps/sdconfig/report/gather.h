// Gathers what a report tells: from the service, the data folder, the policies of the machine, the properties' files
// and the trail. What can't be had is told in the report, and nothing else fails for it.
#pragma once

#include "apps/sdconfig/report/report.h"
#include "apps/sdconfig/request/request.h"

namespace cli {

class Service;

// access: to the request's data folder, as it was found beside this service.
Report gatherReport(const Request& request, Service& service, const DataAccess& access);

}  // namespace cli
