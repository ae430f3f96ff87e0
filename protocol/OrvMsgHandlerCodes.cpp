#define LOG_TAG "OrvMsgHandler"
#include <stdlib.h>
#include <string.h>
#include <sysutils/SocketClient.h>

#include <iterator>
#include <string>
#include <string_view>

#include "core/OrvLog.h"
#include "policy/OrvActionManager.h"
#include "protocol/OrvAtoi.h"
#include "protocol/OrvMsgHandler.h"
#include "protocol/OrvMsgTrace.h"
#include "protocol/include/orv/protocol.h"
#include "scenario/OrvContext.h"

namespace {

using namespace orv;

// The types of LIST_VIEW, VIEW_GESTURE and SCALE: trace name and context operation (none while a
// scale goes on).
struct ViewEvent {
    const char* trace;
    void (OrvContext::*op)(const char*, int);
};
struct ViewFamily {
    const char* name;  // in the unknown-type warning
    const ViewEvent* events;
    size_t count;
};
const ViewEvent kListViewEvents[] = {{"LIST_IDLE", &OrvContext::onListIdle},
                                     {"LIST_SCROLL", &OrvContext::onListScroll},
                                     {"LIST_FLING", &OrvContext::onListFling}};
const ViewEvent kViewGestureEvents[] = {
    {"VIEW_GESTURE_DOWN", &OrvContext::onGestureDown},
    {"VIEW_GESTURE_PRESS", &OrvContext::onGesturePress},
    {"VIEW_GESTURE_TAP", &OrvContext::onGestureTap},
    {"VIEW_GESTURE_SCROLL", &OrvContext::onGestureScroll},
    {"VIEW_GESTURE_FLING", &OrvContext::onGestureFling},
    {"VIEW_GESTURE_LONG_PRESS", &OrvContext::onGestureLongPress}};
const ViewEvent kScaleEvents[] = {{"SCALE_START", &OrvContext::onScaleStart},
                                  {"SCALE_CONTINUE", nullptr},
                                  {"SCALE_END", &OrvContext::onScaleEnd}};
const ViewFamily kListView{"LIST_VIEW", kListViewEvents, std::size(kListViewEvents)};
const ViewFamily kViewGesture{"GESTURE", kViewGestureEvents, std::size(kViewGestureEvents)};
const ViewFamily kScale{"SCALE", kScaleEvents, std::size(kScaleEvents)};

// ";"-separated fields, cut in place; a missing one reads as empty text (and so as 0), as with
// getline over a string stream.
class Fields {
  public:
    explicit Fields(const char* payload) : mNext(payload) {}
    std::string text() {
        const char* start = next();
        return start ? std::string(start, mEnd) : std::string();
    }
    // The same text where it lies, for a field that is only looked at.
    std::string_view view() {
        const char* start = next();
        return start ? std::string_view(start, static_cast<size_t>(mEnd - start))
                     : std::string_view("");
    }
    // Parsing stops at the ";" by itself, so the field needs no copy.
    int number() {
        const char* start = next();
        return start ? OrvAtoi(start) : 0;
    }

  private:
    // Start of the next field and its end in mEnd; null once the payload is used up.
    const char* next() {
        const char* start = mNext;
        if (!start || *start == '\0') {
            mNext = nullptr;
            return nullptr;
        }
        const char* semi = strchr(start, ';');
        mEnd = semi ? semi : start + strlen(start);
        mNext = *mEnd ? mEnd + 1 : nullptr;
        return start;
    }
    const char* mNext;
    const char* mEnd = nullptr;
};

}  // namespace

void OrvMsgHandler::consumeMsg(int code, const char* payload, SocketClient* client) {
    OrvMsgTrace trace(code, payload);
    Fields f(payload);
    switch (code) {
        case PROCESS_START: {
            int pid = f.number();
            std::string_view pname = f.view();
            ORV_LOGD("PROCESS_START(%d)|%d;%.*s", code, pid, static_cast<int>(pname.size()),
                     pname.data());
            addPidPNamePair(pid, pname);
            break;
        }
        case PROCESS_DIE: {
            int pid = f.number();
            std::string_view pname = f.view();
            ORV_LOGD("PROCESS_DIE(%d)|%d;%.*s", code, pid, static_cast<int>(pname.size()),
                     pname.data());
            mPidNameMap.erase(pid);
            mGLTidMap.erase(pid);
            break;
        }
        case ACTIVITY_START: {
            int pid = f.number();
            std::string name = f.text();
            std::string extra1 = f.text();
            std::string extra2 = f.text();
            ORV_LOGD("ACTIVITY_START(%d)|%d;%s;%s;%s", code, pid, name.c_str(), extra1.c_str(),
                     extra2.c_str());
            if (!mContext) break;
            if (pid == -1) {
                mContext->onLaunch(name.c_str());
            } else {
                mContext->onStart(name.c_str(), pid, glTidOf(pid));
            }
            break;
        }
        case ACTIVITY_DISPLAYED: {
            int pid = f.number();
            std::string pname = f.text();
            ORV_LOGD("ACTIVITY_DISPLAYED(%d)|%d;%s", code, pid, pname.c_str());
            if (mContext) mContext->onDisplayed(pname.c_str(), pid);
            break;
        }
        case ACTIVITY_TRANSITION: {
            int fromPid = f.number();
            std::string fromName = f.text();
            int toPid = f.number();
            std::string toName = f.text();
            ORV_LOGD("ACTIVITY_TRANSITION(%d)|%d;%s;%d;%s", code, fromPid, fromName.c_str(), toPid,
                     toName.c_str());
            if (mContext) {
                mContext->onTransit(fromPid, fromName.c_str(), toPid, toName.c_str(),
                                    glTidOf(toPid));
            }
            break;
        }
        case ROTATE_START:
            ORV_LOGD("ROTATE_START(%d)", code);
            if (mContext) mContext->onRotateStart();
            break;
        case ROTATE_ANIMATION_START:
            ORV_LOGD("ROTATE_ANIMATION_START(%d)", code);
            break;
        case ROTATE_ANIMATION_END:
            ORV_LOGD("ROTATE_ANIMATION_END(%d)", code);
            if (mContext) mContext->onRotateStop();
            break;
        case LIST_VIEW:
        case VIEW_GESTURE:
        case SCALE: {
            if (!mContext) break;
            int pid = f.number();
            int type = f.number();
            onViewEvent(code, pid, type);
            break;
        }
        case GLTHREAD_ATTACH: {
            int pid = f.number();
            int tid = f.number();
            ORV_LOGD("GLTHREAD_ATTACH(%d)|%d;%d", code, pid, tid);
            addIdPair(pid, tid);
            const char* pname = getPNameByPid(pid);
            if (pname[0] == '\0') {
                ALOGE("cannot map pid to pname, drop event GLTHREAD_ATTACH %d;%d", pid, tid);
            } else if (mContext) {
                mContext->onAttachGLThread(pname, pid, tid);
            }
            break;
        }
        case GLTHREAD_DETTACH: {
            int pid = f.number();
            int tid = f.number();
            ORV_LOGD("GLTHREAD_DETTACH(%d)|%d;%d", code, pid, tid);
            mGLTidMap.erase(pid);
            break;
        }
        case DALVIK_LARGE_HEAP: {
            int pid = f.number();
            ORV_LOGD("DALVIK_LARGE_HEAP(%d)|%d", code, pid);
            replyAppParam(client, code, pid, "DALVIK_HEAP_UTILIZATION", "large_heap",
                          kDefaultLargeHeap);
            break;
        }
        case DALVIK_HEAP_UTILIZATION:
            replyAppParam(client, code, f.number(), "DALVIK_HEAP_UTILIZATION", "heap_utilization",
                          kDefaultHeapUtilization);
            break;
        case HARDWARE_ACCELERATION:
            replyAppParam(client, code, f.number(), "HARDWARE_ACCELERATION",
                          "hardware_acceleration", kDefaultHardwareAcceleration);
            break;
        case DISABLE_THERMAL: {
            std::string name = f.text();
            ORV_LOGD("DISABLE_THERMAL(%d)|%s", code, name.c_str());
            std::string param = "000";
            std::string answer = kDefaultThermalMask;
            if (mActionManager) mActionManager->findAppParam(name.c_str(), "thermal_mask", param);
            binStr2UIntStr(param, answer);
            ORV_LOGD("param=%s, len=%d => thermal_mask=%s", param.c_str(),
                     static_cast<int>(param.size()), answer.c_str());
            reply(client, code, answer.c_str());
            break;
        }
        case CONFIGURATION_UPDATE: {
            std::string path = f.text();
            ORV_LOGD("CONFIGURATION_UPDATE(%d)|%s", code, path.c_str());
            if (mActionManager) mActionManager->prepareUpdateDB(path.c_str());
            break;
        }
        case GOING_TO_SLEEP:
            ORV_LOGD("GOING_TO_SLEEP(%d)", code);
            if (mContext) mContext->onScreenOff();
            break;
        case WAKING_UP:
            ORV_LOGD("WAKING_UP(%d)", code);
            if (mContext) mContext->onScreenOn();
            break;
        case CONFIGURATION_QUERY: {
            int type = f.number();
            std::string key = f.text();
            onConfigurationQuery(type, key, client);
            break;
        }
        case TIMEOUT:
            ORV_LOGD("TIMEOUT(%d)", code);
            if (mContext) mContext->onTimeout();
            break;
        case DUMP_STATE: {
            std::string dump;
            // Unset only in tools that drive the handler on their own.
            if (mDumper) mDumper(mDumperOwner, dump);
            reply(client, code, dump.c_str());
            break;
        }
        default:
            ALOGE("undefined code(%d)|%s", code, payload);
            reply(client, code, kUnknownCodeAnswer);
            break;
    }
}

void OrvMsgHandler::replyAppParam(SocketClient* client, int code, int pid, const char* trace,
                                  const char* param, const char* fallback) {
    std::string answer = fallback;
    const char* pname = getPNameByPid(pid);
    ORV_LOGD("%s(%d)|%d", trace, code, pid);
    if (pname[0] != '\0' && mActionManager) {
        mActionManager->findAppParam(pname, param, answer);
    }
    ORV_LOGD("%s=%s", param, answer.c_str());
    reply(client, code, answer.c_str());
}

void OrvMsgHandler::onViewEvent(int code, int pid, int type) {
    const ViewFamily& family = code == LIST_VIEW      ? kListView
                               : code == VIEW_GESTURE ? kViewGesture
                                                      : kScale;
    if (type < 0 || static_cast<size_t>(type) >= family.count) {
        ALOGW("Unknown %s type (%d)", family.name, type);
        return;
    }
    const ViewEvent& event = family.events[type];
    ORV_LOGD("%s(%d)|%d", event.trace, code, pid);
    if (event.op) (mContext->*event.op)(getPNameByPid(pid), pid);
}

void OrvMsgHandler::onConfigurationQuery(int type, const std::string& key, SocketClient* client) {
    ORV_LOGD("CONFIGURATION_QUERY(%d)|%d;%s", CONFIGURATION_QUERY, type, key.c_str());
    std::string param = "0";
    std::string answer = kDefaultEventMask;
    std::string app;
    if (type == static_cast<int>(QueryBy::Name)) {
        ORV_LOGD("CONFIGURATION_QUERY_BY_NAME(%d)|%d;%s", CONFIGURATION_QUERY, type, key.c_str());
        app = key;
    } else if (type == static_cast<int>(QueryBy::Pid)) {
        ORV_LOGD("CONFIGURATION_QUERY_BY_PID(%d)|%d;%s", CONFIGURATION_QUERY, type, key.c_str());
        app = getPNameByPid(atoi(key.c_str()));
    } else {
        ALOGE("Unknown CONFIGURATION_QUERY type(%d)", type);
        return;
    }
    if (!app.empty() && mActionManager) {
        mActionManager->findAppParam(app.c_str(), "event_mask", param);
        binStr2UIntStr(param, answer);
    }
    ORV_LOGD("param=%s, len=%d => event_mask=%s", param.c_str(), static_cast<int>(param.size()),
             answer.c_str());
    reply(client, CONFIGURATION_QUERY, answer.c_str());
}
