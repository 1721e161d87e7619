// Root's own service, which the system's manager runs for services that take their settings from root alone.
#pragma once

namespace apps {

inline constexpr char kSystemDataFolder[] = "/var/lib/sdconfig";

// Whether the service of this environment is root's: its socket is in /run, a user's in a folder of the user's.
bool isSystemService();

}  // namespace apps
