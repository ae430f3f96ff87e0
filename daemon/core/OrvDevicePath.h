#pragma once
#include <string>

// A fixed device location the daemon names itself ("/data/orvpolicy"); on a host it lives under
// ORV_ROOT. Paths that come from outside (policy documents, update messages) are used as given.
// Built with ORV_DATA_DIR (e.g. "/data/system/orvd"), the files kept directly in /data move
// there: current SELinux policies let only init and vold create files in /data itself.
std::string OrvDevicePath(const char* devicePath);

// Where `devicePath` lives when the files directly in /data go to `dataDir` (null or empty: the
// location stays as it is).
std::string OrvDataPlacement(const char* devicePath, const char* dataDir);
