#define LOG_TAG "OrvActionManager"
#include "core/OrvLog.h"
#include "policy/OrvJsonActionDB.h"
#include "policy/methods/OrvIoctlCfg.h"

const char* OrvJsonActionDB::methodPath(const Json::Value& methodObject) {
    const Json::Value& path = member(methodObject, "path");
    if (path.isString()) return path.asCString();
    ALOGE("path type is not a string. (fetch %s)", getCurActionInfoStr().c_str());
    return nullptr;
}

bool OrvJsonActionDB::pathAndText(const Json::Value& methodObject, OrvAction* action,
                                  const char*& path, std::string& text) {
    path = methodPath(methodObject);
    if (path == nullptr || getValueStringByType(methodObject, action, text) != 0) return false;
    if (OrvLogIsEnabled()) {
        ALOGD("exe   %s:{path:%s value:%s}", getCurActionInfoStr().c_str(), path, text.c_str());
    }
    return true;
}

const OrvJsonActionDB::MethodForm& OrvJsonActionDB::methodForm(const Json::Value& methodObject) {
    auto known = mMethodForms.find(&methodObject);
    if (known != mMethodForms.end()) return known->second;
    MethodForm form{METHOD_UNKNOWN, nullptr, nullptr, std::string()};
    const Json::Value& method = member(methodObject, "method");
    const Json::Value& path = member(methodObject, "path");
    const Json::Value& type = member(methodObject, "type");
    const Json::Value& value = member(methodObject, "value");
    const int kind = method.isString() ? getMethodType(method.asCString()) : METHOD_UNKNOWN;
    // The two literals of stringOfValue: a text of "type" "string", an int of "type" "int".
    bool literal = false;
    if (type.isString() && value.isString() && type.asString() == "string") {
        form.text = value.asString();
        literal = true;
    } else if (type.isString() && value.isInt() && type.asString() == "int") {
        form.text = std::to_string(value.asInt());
        literal = true;
    }
    if ((kind == METHOD_XFS || kind == METHOD_PROP) && path.isString() && literal) {
        form.type = kind;
        form.name = method.asCString();
        form.path = path.asCString();
    } else {
        form.text.clear();
    }
    return mMethodForms.emplace(&methodObject, std::move(form)).first->second;
}

void OrvJsonActionDB::runMethodForm(const MethodForm& form) {
    if (OrvLogIsEnabled()) {
        ALOGD("exe   %s:{path:%s value:%s}", getCurActionInfoStr().c_str(), form.path,
              form.text.c_str());
    }
    if (form.type == METHOD_XFS) {
        writeFile(form.path, form.text.c_str());
    } else {
        setSystemProperty(form.path, form.text.c_str());
    }
}

void OrvJsonActionDB::doXfsAction(Json::Value& methodObject, OrvAction* action) {
    const char* path;
    std::string text;
    if (pathAndText(methodObject, action, path, text)) writeFile(path, text.c_str());
}

void OrvJsonActionDB::doSetPropAction(Json::Value& methodObject, OrvAction* action) {
    const char* path;
    std::string text;
    if (pathAndText(methodObject, action, path, text)) setSystemProperty(path, text.c_str());
}

void OrvJsonActionDB::doProgramAction(Json::Value& methodObject, OrvAction* action) {
    const char* path;
    std::string text;
    // "timeout_ms" bounds the run; a value that is not a positive number refuses the method
    // rather than run it without limit.
    int timeoutMs = kProgramTimeoutMs;
    const Json::Value& limit = member(methodObject, "timeout_ms");
    if (!limit.isNull()) {
        if (!limit.isInt() || limit.asInt() <= 0) {
            ALOGE("\"timeout_ms\" must be a positive number of milliseconds @%s",
                  getCurActionInfoStr().c_str());
            return;
        }
        timeoutMs = limit.asInt();
    }
    if (pathAndText(methodObject, action, path, text)) shell(path, text.c_str(), timeoutMs);
}

int OrvJsonActionDB::getIoctlCfg(const Json::Value& methodObject, const char* key,
                                 OrvIoctlCfg& cfg) {
    const Json::Value& object = member(methodObject, key);
    if (object.isNull()) {
        ALOGE("Cannot find %s @%s", key, getCurActionInfoStr().c_str());
        return -1;
    }
    if (!object.isObject()) {
        ALOGE("\"%s\" is not an object @%s", key, getCurActionInfoStr().c_str());
        return -1;
    }
    // "dir" and "type" are texts the configuration must accept; a refusal names the field's
    // `what` ("type" or "format"), the type's with a full stop.
    auto text = [&](const char* field, bool (OrvIoctlCfg::*set)(const char*), const char* what,
                    const char* stop) {
        const Json::Value& v = object[field];
        if (!v.isString()) {
            ALOGE("\"%s \" should be a string in %s @%s", field, key, getCurActionInfoStr().c_str());
            return false;
        }
        if ((cfg.*set)(v.asCString())) return true;
        ALOGE("Unknown \"%s\" %s(%s) in %s%s @%s", field, what, v.asCString(), key, stop,
              getCurActionInfoStr().c_str());
        return false;
    };
    if (!text("dir", &OrvIoctlCfg::setDir, "type", "") ||
        !text("type", &OrvIoctlCfg::setType, "format", "."))
        return -1;
    const Json::Value& nr = object["nr"];
    if (!nr.isInt()) {
        ALOGE("\"%s \" should be an int in %s. (fetch %s)", "nr", key,
              getCurActionInfoStr().c_str());
        return -1;
    }
    cfg.nr = nr.asInt();
    if (object["size"].isInt()) cfg.size = object["size"].asInt();
    if (object["bufsize"].isInt()) cfg.bufsize = object["bufsize"].asInt();
    if (object["read_select"].isInt()) cfg.read_select = object["read_select"].asInt();
    if (object["param_type"].isString()) cfg.param_type = object["param_type"].asString();
    return 0;
}

void OrvJsonActionDB::doIoctlAction(Json::Value& methodObject, OrvAction* action) {
    const char* path = methodPath(methodObject);
    if (path == nullptr) return;
    OrvIoctlCfg cfg;
    if (getIoctlCfg(methodObject, "method_ioctl_cfg", cfg) != 0) return;

    if (cfg.dir == 0) {
        if (OrvLogIsEnabled()) {
            ALOGD("exe   %s:{path:%s dir:%d type:%d nr:%d size:%d param_type:%s}",
                  getCurActionInfoStr().c_str(), path, cfg.dir, cfg.type, cfg.nr, cfg.size,
                  cfg.param_type.c_str());
        }
        writeIoctl(path, cfg, nullptr);
        return;
    }
    // A read-only request is never issued by this method.
    if (cfg.dir != 1 && cfg.dir != 3) return;

    auto sizeIs = [&](int count) {
        if (cfg.size == count) return true;
        ALOGE("\"size\"(%d) in method_ioctl_cfg doesn't match \"value\" size(%d). (fetch %s)",
              cfg.size, count, getCurActionInfoStr().c_str());
        return false;
    };
    const char kind = cfg.param_type.empty() ? '\0' : cfg.param_type[0];
    if (kind == 's') {
        std::string text;
        if (getValueStringByType(methodObject, action, text) != 0) return;
        if (OrvLogIsEnabled()) {
            ALOGD("exe   %s:{path:%s dir:%d type:%d nr:%d size:%d param_type:%s value:%s}",
                  getCurActionInfoStr().c_str(), path, cfg.dir, cfg.type, cfg.nr, cfg.size,
                  cfg.param_type.c_str(), text.c_str());
        }
        writeIoctl(path, cfg, &text[0]);
    } else if (kind == 'i') {
        int value = 0;
        if (getValueIntByType(methodObject, action, value) != 0) return;
        if (!sizeIs(static_cast<int>(sizeof(value)))) return;
        if (OrvLogIsEnabled()) {
            ALOGD("exe  %s:{path:%s dir:%d type:%d nr:%d size:%d param_type:%s value:%d}",
                  getCurActionInfoStr().c_str(), path, cfg.dir, cfg.type, cfg.nr, cfg.size,
                  cfg.param_type.c_str(), value);
        }
        writeIoctl(path, cfg, &value);
    } else if (kind == 'b') {
        std::vector<unsigned char> bytes;
        if (getValueByteArrayByType(methodObject, action, bytes) != 0) return;
        int count = static_cast<int>(bytes.size());
        if (!sizeIs(count)) return;
        if (OrvLogIsEnabled()) {
            ALOGD(
                "exe   %s:{path:%s dir:%d type:%d nr:%d size:%d param_type:%s "
                "value:%02x...%02x value.size=%d}",
                getCurActionInfoStr().c_str(), path, cfg.dir, cfg.type, cfg.nr, cfg.size,
                cfg.param_type.c_str(), bytes.empty() ? 0 : bytes.front(),
                bytes.empty() ? 0 : bytes.back(), count);
        }
        writeIoctl(path, cfg, bytes.data());
    } else {
        ALOGE("Unsupported ioctl param_type(%s) in method_ioctl_cfg. (fetch %s)",
              cfg.param_type.c_str(), getCurActionInfoStr().c_str());
    }
}

void OrvJsonActionDB::doOrvIoctlAction(Json::Value& methodObject, OrvAction* /*action*/) {
    const Json::Value& cmdValue = member(methodObject, "cmd");
    int cmd = 0;
    // JsonCpp's own conversion (3.5 gives 3, true gives 1); kinds it would throw on read as 0.
    if (cmdValue.isConvertibleTo(Json::intValue)) {
        cmd = cmdValue.asInt();
    } else {
        ALOGE("\"cmd\" is not an int, 0 is used @%s", getCurActionInfoStr().c_str());
    }
    const char* path = methodPath(methodObject);
    if (path == nullptr) return;
    const Json::Value& value = member(methodObject, "value");
    if (!value.isString()) {
        ALOGE("value type is not string (%s)", getCurActionInfoStr().c_str());
        return;
    }
    if (OrvLogIsEnabled()) {
        ALOGD("exe   %s:{path:%s cmd:%d value:%s}", getCurActionInfoStr().c_str(), path, cmd,
              value.asCString());
    }
    writeOrvIoctl(path, cmd, value.asCString());
}
