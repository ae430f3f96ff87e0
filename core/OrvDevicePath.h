#pragma once
#include <string>

// A fixed device location the daemon names itself ("/data/orvpolicy"); on a host it lives under
// ORV_ROOT. Paths that come from outside (policy documents, update messages) are used as given.
// Built with ORV_DATA_DIR, the files kept directly in /data move there: AOSP's SELinux policy
// lets only init and vold create files in /data itself, so Android.bp sets "/data/system/orvd".
// Host builds keep $ORV_ROOT/data unless configured with -DORV_DATA_DIR.
std::string OrvDevicePath(const char* devicePath);

// Where `devicePath` lives when the files directly in /data go to `dataDir` (null or empty: the
// location stays as it is).
std::string OrvDataPlacement(const char* devicePath, const char* dataDir);
