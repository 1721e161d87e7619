// What /proc tells of another process.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace apps {

// What the system adds to the path of a file that a process uses and that was removed or replaced since.
inline constexpr char kRemoved[] = " (deleted)";

// Nothing, or none, where the process is gone or another user's.
std::vector<std::string> argumentsOf(pid_t process);
std::optional<std::string> variableOf(pid_t process, const std::string& name);

// The path that the option names on its command line, from the folder in which the process works; "": none.
std::string pathOption(pid_t process, const std::string& option);

// Whether systemd runs it as the service's unit, and not a person by hand.
bool isServiceUnit(pid_t process);

// The command that ends the process; where it is the service's unit, that of the unit and of the socket which would
// start it again.
std::string howToEnd(pid_t process);

// The command that starts it again as it was started; its paths may be relative ones. by: what the command begins with.
std::string howToStartAgain(pid_t process, const std::string& by);

}  // namespace apps
