// The commands that ask the service alone, a file and a function each: it does what the request asks, prints, and
// returns the exit code.
#pragma once

#include "apps/sdconfig/request/request.h"

namespace cli {

class Service;

int getProperty(const Request& request, Service& service);
int setProperty(const Request& request, Service& service);
int deleteProperty(const Request& request, Service& service);
int getSecure(const Request& request, Service& service);
int setSecure(const Request& request, Service& service);
int deleteShownSecure(const Request& request, Service& service);
int executeWithSecrets(const Request& request, Service& service);
int setPolicy(const Request& request, Service& service);
int getPolicy(const Request& request, Service& service);
int deletePolicy(const Request& request, Service& service);
int showStrong(const Request& request, Service& service);
int clearPolicies(const Request& request, Service& service);
int getConst(const Request& request, Service& service);
int signText(const Request& request, Service& service);
int verifyText(const Request& request, Service& service);
int rotateKey(const Request& request, Service& service);
int disableKey(const Request& request, Service& service);
int enableKey(const Request& request, Service& service);
int pruneKeys(const Request& request, Service& service);
int showStatus(const Request& request, Service& service);

}  // namespace cli
