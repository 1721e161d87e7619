// The device-management facade: callbacks for changed keys.
#pragma once

#include <string>

#include "libsdconfig/sdconfig_export.h"

namespace sd {

class SDCONFIG_API DMConfig {
public:
    // What a caller implements to hear of changes.
    class SDCONFIG_API Listener {
    public:
        virtual ~Listener();

        // A change of the key: its new value and whether a policy controls it now (false where the registration did not
        // ask for that). Runs on the bus layer's event thread; it may call any operation of the facades.
        virtual void onChanged(const std::string& key, const std::string& value, bool flag) = 0;
    };
};

}  // namespace sd
