// The commands, one function each: it does what the request asks, prints, and returns the exit code.
#pragma once

#include "apps/sdconfig/request.h"

namespace cli {

class Service;

// property_commands.cpp
int getProperty(const Request& request, Service& service);
int setProperty(const Request& request, Service& service);
int deleteProperty(const Request& request, Service& service);

// secure_commands.cpp
int getSecure(const Request& request, Service& service);
int setSecure(const Request& request, Service& service);
int deleteSecure(const Request& request, Service& service);

// service_commands.cpp
int getConst(const Request& request, Service& service);
int signText(const Request& request, Service& service);
int verifyText(const Request& request, Service& service);
int showStatus(const Request& request, Service& service);

}  // namespace cli
