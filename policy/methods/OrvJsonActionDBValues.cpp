#define LOG_TAG "OrvActionManager"
#include <stdlib.h>
#include <string.h>

#include "core/OrvLog.h"
#include "policy/OrvJsonActionDB.h"
#include "policy/methods/OrvHex.h"

namespace {

// A "value" the text and the int conversions both take as it is: an int under "type" "int" (1,
// in `number`) or a text under any type (0). Anything else is -1, after a log line.
int literal(OrvJsonActionDB& db, const Json::Value& value, const std::string& type, int& number) {
    if (value.isString()) return 0;
    if (!value.isInt()) {
        ALOGE("\"value\" is not a string or int. @%s", db.getCurActionInfoStr().c_str());
        return -1;
    }
    if (type != "int") {
        ALOGE("\"value\" type(int) doesn't match \"type\"(%s) @%s", type.c_str(),
              db.getCurActionInfoStr().c_str());
        return -1;
    }
    number = value.asInt();
    return 1;
}

// The "type" member of a value as text; false after a log line when it is not one.
bool typeText(OrvJsonActionDB& db, const Json::Value& typeValue, std::string& type) {
    if (!typeValue.isString()) {
        ALOGE("\"type\" must be a string. @%s", db.getCurActionInfoStr().c_str());
        return false;
    }
    type = typeValue.asString();
    return true;
}

// -1, after the log line for a known `type` that the conversion `to` does not take.
int unsupported(OrvJsonActionDB& db, const std::string& type, const char* to) {
    ALOGE("\"%s\" type is not supported to convert to %s. @%s", type.c_str(), to,
          db.getCurActionInfoStr().c_str());
    return -1;
}

}  // namespace

const Json::Value& OrvJsonActionDB::member(const Json::Value& object, const char* key) {
    static const Json::Value kNull;
    return object.isObject() ? object[key] : kNull;
}

int OrvJsonActionDB::getValueStringByType(const Json::Value& methodObject, OrvAction* action,
                                          std::string& out) {
    const Json::Value& type = member(methodObject, "type");
    if (!type.isString()) {
        ALOGE("\"type\" must be a string. (fetch %s)", getCurActionInfoStr().c_str());
        return -1;
    }
    return stringOfValue(methodObject, type, action, out);
}

// Text conversion once "type" is known to be a string; `typeValue` is that member, looked up once.
int OrvJsonActionDB::stringOfValue(const Json::Value& object, const Json::Value& typeValue,
                                   OrvAction* action, std::string& out) {
    const std::string type = typeValue.asString();
    const Json::Value& value = member(object, "value");
    if (type == "array") {
        if (!value.isArray()) {
            ALOGE("\"value\" is not an array. @%s", getCurActionInfoStr().c_str());
            return -1;
        }
        std::string element;
        for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
            element.clear();
            if (getValueStringByType(value[i], action, element) != 0) return -1;
            out += element;
            out += " ";
        }
        return 0;
    }
    int number = 0;
    const int kind = literal(*this, value, type, number);
    if (kind < 0) return -1;
    if (kind > 0) {
        out = std::to_string(number);
        return 0;
    }
    if (type == "string") {
        out = value.asString();
        return 0;
    }
    const std::string text = value.asString();
    if (type == "xfs") return readFile(text.c_str(), out);
    if (type == "prop") return getSystemProperty(text.c_str(), out);
    if (type == "var") return getVarString(action, text.c_str(), out);
    if (type == "ioctl" || type == "binary") return unsupported(*this, type, "string");
    ALOGE("Unknown type(%s). @%s", type.c_str(), getCurActionInfoStr().c_str());
    return -1;
}

int OrvJsonActionDB::getValueIntByType(const Json::Value& methodObject, OrvAction* /*action*/,
                                       int& out) {
    std::string type;
    if (!typeText(*this, member(methodObject, "type"), type)) return -1;
    const Json::Value& value = member(methodObject, "value");
    const int kind = literal(*this, value, type, out);
    if (kind != 0) return kind < 0 ? -1 : 0;
    if (type == "string") {
        out = atoi(value.asCString());
        return 0;
    }
    // The first three lack "to convert to int"; log readers match on both wordings.
    static const char* const kShort[] = {"xfs", "prop", "var"};
    for (const char* name : kShort) {
        if (type == name) {
            ALOGE("\"%s\" type is not supported. @%s", name, getCurActionInfoStr().c_str());
            return -1;
        }
    }
    static const char* const kLong[] = {"ioctl", "array", "binary"};
    for (const char* name : kLong)
        if (type == name) return unsupported(*this, type, "int");
    ALOGE("Unknown type(%s). @%s", type.c_str(), getCurActionInfoStr().c_str());
    return -1;
}

int OrvJsonActionDB::getValueByteArrayByType(const Json::Value& methodObject, OrvAction* /*action*/,
                                             std::vector<unsigned char>& out) {
    std::string type;
    if (!typeText(*this, member(methodObject, "type"), type)) return -1;
    const Json::Value& value = member(methodObject, "value");
    if (!value.isString()) {
        ALOGE("\"value\" is not a string. @%s", getCurActionInfoStr().c_str());
        return -1;
    }
    if (type != "binary") return unsupported(*this, type, "byte array");
    if (hexDataStringToByteArray(value.asCString(), out) != 0) {
        ALOGE("\"value\" is an invalid hex string @%s", getCurActionInfoStr().c_str());
        return -1;
    }
    return 0;
}
