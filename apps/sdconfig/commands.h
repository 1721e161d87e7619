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

// secure_exec_command.cpp
int executeWithSecrets(const Request& request, Service& service);

// policy_commands.cpp
int setPolicy(const Request& request, Service& service);
int getPolicy(const Request& request, Service& service);
int deletePolicy(const Request& request, Service& service);
int listPolicies(const Request& request, Service& service);
int showStrong(const Request& request, Service& service);
int clearPolicies(const Request& request, Service& service);

// policy_transfer.cpp
int exportPolicies(const Request& request, Service& service);
int applyPolicies(const Request& request, Service& service);

// explain_command.cpp
int explainKey(const Request& request, Service& service);

// watch_command.cpp
int watchKeys(const Request& request, Service& service);

// list_command.cpp
int listKeys(const Request& request, Service& service);

// upgrade_command.cpp
int upgradeDatabase(const Request& request, Service& service);

// check_command.cpp
int checkFolder(const Request& request, Service& service);

// doctor_command.cpp
int diagnoseService(const Request& request, Service& service);

// backup_command.cpp
int backupData(const Request& request, Service& service);

// restore_command.cpp
int restoreData(const Request& request, Service& service);

// service_commands.cpp
int getConst(const Request& request, Service& service);
int signText(const Request& request, Service& service);
int verifyText(const Request& request, Service& service);
int showStatus(const Request& request, Service& service);

}  // namespace cli
