#include "tools/orvpolicy/OrvPolicyReport.h"

int OrvPolicyReport::errorCount() const {
    int n = 0;
    for (const auto& f : mFindings)
        if (f.severity == ERROR) ++n;
    return n;
}

std::string OrvPolicyReport::format(const std::string& file) const {
    std::string out;
    for (const auto& f : mFindings) {
        out += file + ": " + (f.severity == ERROR ? "error" : "warning") + ": ";
        if (!f.location.empty()) out += f.location + ": ";
        out += f.message + "\n";
    }
    return out;
}
