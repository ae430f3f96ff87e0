#include <orvhost/host.h>
#include <stdlib.h>

std::string orvhost_path(const char* devicePath) {
    std::string path = devicePath ? devicePath : "";
    const char* env = getenv("ORV_ROOT");
    std::string root = env ? env : "";
    while (!root.empty() && root.back() == '/') root.pop_back();
    if (root.empty()) return path;
    if (!path.empty() && path.front() != '/') root += '/';
    return root + path;
}
