#define LOG_TAG "OrvActionManager"
#include <stdlib.h>
#include <string.h>

#include "core/OrvLog.h"
#include "policy/OrvJsonActionDB.h"
#include "policy/methods/OrvHex.h"

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
            const Json::Value& item = value[i];
            const Json::Value& itemType = member(item, "type");
            if (!itemType.isString()) {
                ALOGE("\"type\" must be a string. (fetch %s)", getCurActionInfoStr().c_str());
                return -1;
            }
            element.clear();
            if (stringOfValue(item, itemType, action, element) != 0) return -1;
            out += element;
            out += " ";
        }
        return 0;
    }
    if (!value.isString()) {
        if (!value.isInt()) {
            ALOGE("\"value\" is not a string or int. @%s", getCurActionInfoStr().c_str());
            return -1;
        }
        if (type != "int") {
            ALOGE("\"value\" type(int) doesn't match \"type\"(%s) @%s", type.c_str(),
                  getCurActionInfoStr().c_str());
            return -1;
        }
        out = std::to_string(value.asInt());
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
    if (type == "ioctl" || type == "binary") {
        ALOGE("\"%s\" type is not supported to convert to string. @%s", type.c_str(),
              getCurActionInfoStr().c_str());
        return -1;
    }
    ALOGE("Unknown type(%s). @%s", type.c_str(), getCurActionInfoStr().c_str());
    return -1;
}

int OrvJsonActionDB::getValueIntByType(const Json::Value& methodObject, OrvAction* /*action*/,
                                       int& out) {
    const Json::Value& typeValue = member(methodObject, "type");
    if (!typeValue.isString()) {
        ALOGE("\"type\" must be a string. @%s", getCurActionInfoStr().c_str());
        return -1;
    }
    const std::string type = typeValue.asString();
    const Json::Value& value = member(methodObject, "value");
    if (value.isInt()) {
        if (type != "int") {
            ALOGE("\"value\" type(int) doesn't match \"type\"(%s) @%s", type.c_str(),
                  getCurActionInfoStr().c_str());
            return -1;
        }
        out = value.asInt();
        return 0;
    }
    if (!value.isString()) {
        ALOGE("\"value\" is not a string or int. @%s", getCurActionInfoStr().c_str());
        return -1;
    }
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
    for (const char* name : kLong) {
        if (type == name) {
            ALOGE("\"%s\" type is not supported to convert to int. @%s", name,
                  getCurActionInfoStr().c_str());
            return -1;
        }
    }
    ALOGE("Unknown type(%s). @%s", type.c_str(), getCurActionInfoStr().c_str());
    return -1;
}

int OrvJsonActionDB::getValueByteArrayByType(const Json::Value& methodObject, OrvAction* /*action*/,
                                             std::vector<unsigned char>& out) {
    const Json::Value& typeValue = member(methodObject, "type");
    if (!typeValue.isString()) {
        ALOGE("\"type\" must be a string. @%s", getCurActionInfoStr().c_str());
        return -1;
    }
    const Json::Value& value = member(methodObject, "value");
    if (!value.isString()) {
        ALOGE("\"value\" is not a string. @%s", getCurActionInfoStr().c_str());
        return -1;
    }
    const std::string type = typeValue.asString();
    if (type != "binary") {
        ALOGE("\"%s\" type is not supported to convert to byte array. @%s", type.c_str(),
              getCurActionInfoStr().c_str());
        return -1;
    }
    if (hexDataStringToByteArray(value.asCString(), out) != 0) {
        ALOGE("\"value\" is an invalid hex string @%s", getCurActionInfoStr().c_str());
        return -1;
    }
    return 0;
}
