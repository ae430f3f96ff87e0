#include "tools/orvpolicy/OrvPolicyMethodChecker.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>

#include <set>
#include <vector>

#include "policy/methods/OrvHex.h"
#include "policy/methods/OrvIoctlCfg.h"

namespace {

std::string quoted(const std::string& s) {
    return "\"" + s + "\"";
}

const char* kindName(const Json::Value& v) {
    switch (v.type()) {
        case Json::nullValue:
            return "null";
        case Json::intValue:
        case Json::uintValue:
            return "an integer";
        case Json::realValue:
            return "a real number";
        case Json::stringValue:
            return "a text";
        case Json::booleanValue:
            return "a boolean";
        case Json::arrayValue:
            return "an array";
        case Json::objectValue:
            return "an object";
    }
    return "a value";
}

bool isVariable(const std::string& name) {
    return name == "PID" || name == "GLTID" || name == "EXIT_GLTID" || name == "EXIT_PID";
}

}  // namespace

bool OrvPolicyMethodChecker::isKnownMethod(const std::string& method) {
    static const std::set<std::string> names = {"xfs",  "orv_ioctl", "ioctl",
                                                "prop", "program",   "group"};
    return names.count(method) > 0;
}

void OrvPolicyMethodChecker::check(const std::string& loc, const std::string& method,
                                   const Json::Value& m) {
    checkUnknownKeys(loc, method, m);
    if (method == "xfs") {
        checkPath(loc, m);
        checkText(loc, m, "");
    } else if (method == "prop") {
        if (checkPath(loc, m)) checkPropertyName(loc, m["path"].asString());
        if (checkText(loc, m, "") && m["type"].asString() == "string" && m["value"].isString() &&
            m["value"].asString().size() >= 92)
            mReport.error(loc, "the value is longer than the 91 bytes a property can hold");
    } else if (method == "program") {
        if (!mProtected) {
            mReport.error(loc,
                          "\"program\" runs only from a protected policy file; orvd refuses "
                          "it in a plain one");
            return;
        }
        checkPath(loc, m);
        checkText(loc, m, "");
        const Json::Value& limit = m["timeout_ms"];
        if (!limit.isNull() && !(limit.isInt() && limit.asInt() > 0))
            mReport.error(loc,
                          "\"timeout_ms\" must be a positive number of milliseconds; orvd "
                          "refuses the method");
    } else if (method == "ioctl") {
        checkIoctl(loc, m);
    } else if (method == "orv_ioctl") {
        checkOrvIoctl(loc, m);
    } else {
        mReport.error(loc, "unknown method " + quoted(method));
    }
}

void OrvPolicyMethodChecker::checkUnknownKeys(const std::string& loc, const std::string& method,
                                              const Json::Value& m) {
    std::set<std::string> known = {"method", "path"};
    if (method == "xfs" || method == "prop") known = {"method", "path", "type", "value"};
    if (method == "program") known = {"method", "path", "type", "value", "timeout_ms"};
    if (method == "ioctl") known = {"method", "path", "type", "value", "method_ioctl_cfg"};
    if (method == "orv_ioctl") known = {"method", "path", "cmd", "value"};
    if (!isKnownMethod(method)) return;
    for (const auto& key : m.getMemberNames())
        if (!known.count(key))
            mReport.warning(loc, "key " + quoted(key) + " is never read by " + quoted(method));
}

bool OrvPolicyMethodChecker::checkPath(const std::string& loc, const Json::Value& m) {
    if (m["path"].isString()) return true;
    mReport.error(loc, std::string("\"path\" must be a text, not ") + kindName(m["path"]));
    return false;
}

void OrvPolicyMethodChecker::checkPropertyName(const std::string& loc, const std::string& name) {
    bool ok = !name.empty() && name.front() != '.' && name.back() != '.' &&
              name.find("..") == std::string::npos;
    for (char c : name) {
        bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '_' || c == '-' || c == '@' || c == ':';
        if (!allowed) ok = false;
    }
    if (!ok) mReport.error(loc, "property name " + quoted(name) + " is refused by the platform");
}

bool OrvPolicyMethodChecker::checkText(const std::string& loc, const Json::Value& m,
                                       const std::string& what) {
    const Json::Value& type = m["type"];
    const Json::Value& value = m["value"];
    if (!type.isString()) {
        mReport.error(loc, what + "\"type\" must be a text, not " + kindName(type));
        return false;
    }
    std::string t = type.asString();
    if (t == "array") {
        if (!value.isArray()) {
            mReport.error(loc, what + "\"value\" of type array must be an array");
            return false;
        }
        for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
            std::string inner = what + "value[" + std::to_string(i) + "]: ";
            if (!value[i].isObject()) {
                mReport.error(loc, inner +
                                       "an array element must be an object with \"type\" and "
                                       "\"value\"");
                return false;
            }
            if (!checkText(loc, value[i], inner)) return false;
        }
        return true;
    }
    if (!value.isString()) {
        if (!value.isInt()) {
            mReport.error(loc,
                          what + "\"value\" must be a text or an integer, not " + kindName(value));
            return false;
        }
        if (t != "int") {
            mReport.error(loc, what + "an integer \"value\" needs \"type\" int, not " + quoted(t));
            return false;
        }
        return true;
    }
    std::string v = value.asString();
    if (t == "string" || t == "xfs" || t == "prop") return true;
    if (t == "var") {
        if (isVariable(v)) return true;
        mReport.error(
            loc, what + "unknown variable " + quoted(v) + " (PID, GLTID, EXIT_PID or EXIT_GLTID)");
        return false;
    }
    if (t == "int") {
        mReport.error(loc, what + "type int needs an integer \"value\", not the text " + quoted(v));
        return false;
    }
    if (t == "ioctl" || t == "binary") {
        mReport.error(loc, what + "a " + quoted(t) + " value cannot be turned into text");
        return false;
    }
    mReport.error(loc, what + "unknown type " + quoted(t));
    return false;
}

bool OrvPolicyMethodChecker::checkInt(const std::string& loc, const Json::Value& m) {
    const Json::Value& type = m["type"];
    const Json::Value& value = m["value"];
    if (!type.isString()) {
        mReport.error(loc, std::string("\"type\" must be a text, not ") + kindName(type));
        return false;
    }
    std::string t = type.asString();
    if (value.isInt()) {
        if (t == "int") return true;
        mReport.error(loc, "an integer \"value\" needs \"type\" int, not " + quoted(t));
        return false;
    }
    if (!value.isString()) {
        mReport.error(
            loc, std::string("\"value\" must be a text or an integer, not ") + kindName(value));
        return false;
    }
    if (t == "string") {
        std::string v = value.asString();
        char* end = nullptr;
        strtol(v.c_str(), &end, 10);
        if (end == v.c_str())
            mReport.warning(loc, "the text " + quoted(v) + " has no leading number and reads as 0");
        return true;
    }
    if (t == "int")
        mReport.error(loc, "type int needs an integer \"value\", not a text");
    else if (t == "xfs" || t == "prop" || t == "var" || t == "ioctl" || t == "array" ||
             t == "binary")
        mReport.error(loc, "a " + quoted(t) + " value cannot be turned into an integer");
    else
        mReport.error(loc, "unknown type " + quoted(t));
    return false;
}

bool OrvPolicyMethodChecker::checkBytes(const std::string& loc, const Json::Value& m,
                                        size_t& count) {
    const Json::Value& type = m["type"];
    const Json::Value& value = m["value"];
    if (!type.isString()) {
        mReport.error(loc, std::string("\"type\" must be a text, not ") + kindName(type));
        return false;
    }
    if (!value.isString()) {
        mReport.error(loc, std::string("a binary \"value\" must be a text, not ") + kindName(value));
        return false;
    }
    if (type.asString() != "binary") {
        mReport.error(loc, "a " + quoted(type.asString()) +
                               " value cannot be turned into bytes (use type binary)");
        return false;
    }
    std::string v = value.asString();
    std::vector<unsigned char> bytes;
    if (hexDataStringToByteArray(v.c_str(), bytes) != 0) {
        mReport.error(loc, "bad hex string " + quoted(v) +
                               ": pairs of hex digits with one separator, like \"12 34 AB\"");
        return false;
    }
    for (size_t i = 1; i < v.size(); i += 3) {
        char c = v[i];
        if (c < 'a' || c > 'f') continue;
        char h = static_cast<char>(tolower(static_cast<unsigned char>(v[i - 1])));
        int high = h <= '9' ? h - '0' : h - 'a' + 10;
        unsigned char meant = static_cast<unsigned char>(high << 4 | (c - 'a' + 10));
        if (meant == bytes[i / 3]) continue;
        char hex[40];
        snprintf(hex, sizeof(hex), "0x%02X, not 0x%02X", bytes[i / 3], meant);
        mReport.warning(loc, "lower-case low digit in " + quoted(v.substr(i - 1, 2)) + " gives " +
                                 hex + "; write it in upper case");
    }
    count = bytes.size();
    return true;
}

void OrvPolicyMethodChecker::checkIoctl(const std::string& loc, const Json::Value& m) {
    checkPath(loc, m);
    const Json::Value& cfg = m["method_ioctl_cfg"];
    if (!cfg.isObject()) {
        mReport.error(loc, cfg.isNull() ? "no \"method_ioctl_cfg\""
                                        : "\"method_ioctl_cfg\" must be an object");
        return;
    }
    std::string where = "method_ioctl_cfg: ";
    OrvIoctlCfg c;
    // The two text fields, in the engine's order: each must be a text its setter accepts.
    const struct {
        const char* key;
        bool (OrvIoctlCfg::*set)(const char*);
        const char* form;
    } kTextFields[] = {
        {"dir", &OrvIoctlCfg::setDir, "_IO, _IOW, _IOR or _IOWR"},
        {"type", &OrvIoctlCfg::setType, "one character, or a hex number like \"0x54\""},
    };
    for (const auto& f : kTextFields) {
        const Json::Value& v = cfg[f.key];
        if (!v.isString() || !(c.*f.set)(v.asCString())) {
            mReport.error(loc, where + "bad " + quoted(f.key) + " " +
                                   (v.isString() ? quoted(v.asString()) : kindName(v)) + ": " +
                                   f.form);
            return;
        }
    }
    if (!cfg["nr"].isInt()) {
        mReport.error(loc, where + "\"nr\" must be an integer");
        return;
    }
    for (const char* key : {"size", "bufsize", "read_select"})
        if (cfg.isMember(key) && !cfg[key].isInt())
            mReport.warning(loc, where + quoted(key) + " is not an integer and is ignored");
    if (cfg.isMember("param_type") && !cfg["param_type"].isString())
        mReport.warning(loc, where + "\"param_type\" is not a text and is ignored");
    for (const auto& key : cfg.getMemberNames())
        if (key != "dir" && key != "type" && key != "nr" && key != "size" && key != "bufsize" &&
            key != "read_select" && key != "param_type")
            mReport.warning(loc, where + "key " + quoted(key) + " is never read");

    if (c.dir == 2) {
        mReport.warning(loc, "a read-only (_IOR) request is never issued by orvd");
        return;
    }
    if (c.dir == 0) return;
    int size = cfg["size"].isInt() ? cfg["size"].asInt() : 0;
    std::string pt = cfg["param_type"].isString() ? cfg["param_type"].asString() : "undefined";
    char first = pt.empty() ? '\0' : pt[0];
    if (first == 's') {
        checkText(loc, m, "");
    } else if (first == 'i') {
        if (checkInt(loc, m) && size != 4)
            mReport.error(loc, where + "\"size\" is " + std::to_string(size) +
                                   " but an int value takes 4 bytes");
    } else if (first == 'b') {
        size_t count = 0;
        if (checkBytes(loc, m, count) && static_cast<size_t>(size) != count)
            mReport.error(loc, where + "\"size\" is " + std::to_string(size) +
                                   " but the value has " + std::to_string(count) + " bytes");
    } else {
        mReport.error(
            loc, where + "unsupported \"param_type\" " + quoted(pt) + " (string, int or binary)");
    }
}

void OrvPolicyMethodChecker::checkOrvIoctl(const std::string& loc, const Json::Value& m) {
    const Json::Value& cmd = m["cmd"];
    if (cmd.isNull())
        mReport.warning(loc, "no \"cmd\": the request number is 0x40047800");
    else if (!cmd.isInt())
        mReport.error(loc, "\"cmd\" must be an integer");
    checkPath(loc, m);
    if (!m["value"].isString())
        mReport.error(
            loc, std::string("\"value\" of orv_ioctl must be a text, not ") + kindName(m["value"]));
}
