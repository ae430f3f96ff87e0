#include "tools/orvpolicy/OrvPolicyReport.h"

#include "tools/orvpolicy/OrvPolicyKeyScan.h"

int OrvPolicyReport::count(Severity severity) const {
    int n = 0;
    for (const auto& f : mFindings)
        if (f.severity == severity) ++n;
    return n;
}

void OrvPolicyReport::promoteWarnings() {
    for (auto& f : mFindings) f.severity = ERROR;
}

std::string OrvPolicyReport::groupOf(const std::string& location) {
    // A group's name follows the index of the "group" method that runs it: "[0]g[1]".
    size_t last = std::string::npos;
    for (size_t k = 0; k + 1 < location.size(); ++k)
        if (location[k] == ']' && location[k + 1] != '[' && location[k + 1] != '.') last = k;
    if (last == std::string::npos) return "";
    size_t end = location.find('[', last + 1);
    return location.substr(last + 1, end == std::string::npos ? end : end - last - 1);
}

std::string OrvPolicyReport::documentPath(const std::string& location, const Json::Value& root) {
    const std::string group = groupOf(location);
    if (!group.empty()) {
        size_t at = location.rfind("]" + group);
        return "policy_group." + group + location.substr(at + 1 + group.size());
    }
    const std::string first = location.substr(0, location.find_first_of(".["));
    if (root.isObject() && root.isMember(first) && first != "applications" &&
        !(root["applications"].isObject() && root["applications"].isMember(location)))
        return location;
    return location.empty() ? location : "applications." + location;
}

void OrvPolicyReport::place(const OrvPolicyKeyScan& scan, const Json::Value& root) {
    for (auto& f : mFindings) {
        if (f.line > 0) continue;
        OrvPolicyKeyScan::Position p;
        if (scan.find(documentPath(f.location, root), p)) {
            f.line = p.line;
            f.column = p.column;
        }
    }
}

std::string OrvPolicyReport::format(const std::string& file) const {
    std::string out;
    for (const auto& f : mFindings) {
        out += file;
        if (f.line > 0) out += ":" + std::to_string(f.line) + ":" + std::to_string(f.column);
        out += std::string(": ") + (f.severity == ERROR ? "error" : "warning") + ": ";
        if (!f.location.empty()) out += f.location + ": ";
        out += f.message + "\n";
    }
    return out;
}

void OrvPolicyReport::appendJson(const std::string& file, Json::Value& out) const {
    for (const auto& f : mFindings) {
        Json::Value j;
        j["file"] = file;
        if (f.line > 0) {
            j["line"] = f.line;
            j["column"] = f.column;
        }
        j["severity"] = f.severity == ERROR ? "error" : "warning";
        j["location"] = f.location;
        j["message"] = f.message;
        out.append(j);
    }
}
