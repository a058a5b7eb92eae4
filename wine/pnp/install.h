// install.h - puts the drivers into this system: by their INFs, through its setup library.
//
// Every routine throws std::runtime_error with one line when the system refuses a step.
#pragma once

#include <string>
#include <vector>

// Tv64USB.inf as it is shipped: its files, its service and the service's settings. Its models and the filter are left
// to the system, which does not know them here.
void InstallFilter();
// tvhid.inf among those that the system chooses from; tvbus.inf for a root device that is made for it, which the
// system starts.
void InstallTestDrivers();

// A setting of Tv64USB.sys, read when it is loaded next.
void SetSetting(const std::string& name, const std::string& text);
void SetSetting(const std::string& name, unsigned long ulNumber);
void RemoveSetting(const std::string& name);

// The names of the keyboards' device interfaces that are on.
std::vector<std::string> InterfaceNames();
