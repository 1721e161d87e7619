// The commands that look into the data folder, a file and a function each: it does what the request asks, prints, and
// returns the exit code.
#pragma once

#include "apps/sdconfig/request/request.h"

namespace cli {

class Service;

int deleteSecure(const Request& request, Service& service);
int listPolicies(const Request& request, Service& service);
int exportPolicies(const Request& request, Service& service);
int describeKeys(const Request& request, Service& service);
int lintKeys(const Request& request, Service& service);
int lintPolicies(const Request& request, Service& service);
int installPolicies(const Request& request, Service& service);
int removePolicies(const Request& request, Service& service);
int showPolicyStatus(const Request& request, Service& service);
int applyPolicies(const Request& request, Service& service);
int tryPolicyFolders(const Request& request, Service& service);  // a kind of the one before
int explainKey(const Request& request, Service& service);
int showLog(const Request& request, Service& service);
int verifyLog(const Request& request, Service& service);
int printLogHead(const Request& request, Service& service);
int watchKeys(const Request& request, Service& service);
int listKeys(const Request& request, Service& service);
int listKeyRing(const Request& request, Service& service);
int listSlots(const Request& request, Service& service);
int protectRing(const Request& request, Service& service);
int unprotectRing(const Request& request, Service& service);
int unlockRing(const Request& request, Service& service);
int recoverRing(const Request& request, Service& service);
int upgradeDatabase(const Request& request, Service& service);
int writeReport(const Request& request, Service& service);
int checkFolder(const Request& request, Service& service);
int diagnoseService(const Request& request, Service& service);
int backupData(const Request& request, Service& service);
int restoreData(const Request& request, Service& service);

}  // namespace cli
