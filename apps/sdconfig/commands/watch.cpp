// watch: changes of keys that are all named.
#include "apps/sdconfig/watch/watch.h"

#include "apps/sdconfig/commands/commands.h"

namespace cli {

int watchKeys(const Request& request, Service& service) {
    return watch(request, service, [] { return std::set<std::string>(); });
}

}  // namespace cli
