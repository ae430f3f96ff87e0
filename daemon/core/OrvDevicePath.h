#pragma once
#include <string>

// A fixed device location the daemon names itself ("/data/orvpolicy"); on a host it lives under
// ORV_ROOT. Paths that come from outside (policy documents, update messages) are used as given.
std::string OrvDevicePath(const char* devicePath);
