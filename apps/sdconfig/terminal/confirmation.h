// Asking before something is deleted.
#pragma once

#include <string>

#include "apps/sdconfig/request/request.h"

namespace cli {

// Whether the user has said --yes, or can be asked: is at a terminal, and gives no file there.
bool canConfirm(const Request& request);

// Whether the user has said --yes, or says yes to the question at the terminal.
bool confirmed(const Request& request, const std::string& question);

}  // namespace cli
