#define LOG_TAG "OrvMsgHandler"
#include <stdlib.h>
#include <sysutils/SocketClient.h>

#include <sstream>
#include <string>

#include "daemon/OrvLog.h"
#include "daemon/Orvello.h"
#include "policy/OrvActionManager.h"
#include "protocol/OrvMsgHandler.h"
#include "scenario/OrvContext.h"

namespace {

enum {
    PROCESS_START = 1,
    PROCESS_DIE = 2,
    ACTIVITY_START = 3,
    ACTIVITY_DISPLAYED = 4,
    ACTIVITY_TRANSITION = 5,
    ROTATE_START = 21,
    ROTATE_ANIMATION_START = 22,
    ROTATE_ANIMATION_END = 23,
    LIST_VIEW = 33,
    VIEW_GESTURE = 34,
    SCALE = 35,
    GLTHREAD_ATTACH = 41,
    GLTHREAD_DETTACH = 42,
    DALVIK_LARGE_HEAP = 101,
    DALVIK_HEAP_UTILIZATION = 102,
    HARDWARE_ACCELERATION = 103,
    DISABLE_THERMAL = 104,
    CONFIGURATION_UPDATE = 301,
    GOING_TO_SLEEP = 302,
    WAKING_UP = 303,
    CONFIGURATION_QUERY = 400,
    TIMEOUT = 500,
    DUMP_STATE = 900,
};

// ";"-separated fields; a missing one reads as empty text (and so as 0).
class Fields {
  public:
    explicit Fields(const char* payload) : mStream(payload) {}
    std::string text() {
        std::string field;
        if (!std::getline(mStream, field, ';')) field.clear();
        return field;
    }
    int number() { return atoi(text().c_str()); }

  private:
    std::istringstream mStream;
};

}  // namespace

void OrvMsgHandler::consumeMsg(int code, const char* payload, SocketClient* client) {
    Fields f(payload);
    switch (code) {
        case PROCESS_START: {
            int pid = f.number();
            std::string pname = f.text();
            ORV_LOGD("PROCESS_START(%d)|%d;%s", code, pid, pname.c_str());
            addPidPNamePair(pid, pname.c_str());
            break;
        }
        case PROCESS_DIE: {
            int pid = f.number();
            std::string pname = f.text();
            ORV_LOGD("PROCESS_DIE(%d)|%d;%s", code, pid, pname.c_str());
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
            if (code == LIST_VIEW) {
                onListView(pid, type);
            } else if (code == VIEW_GESTURE) {
                onViewGesture(pid, type);
            } else {
                onScale(pid, type);
            }
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
            std::string answer = "false";
            const char* pname = getPNameByPid(pid);
            ORV_LOGD("DALVIK_HEAP_UTILIZATION(%d)|%d", code, pid);
            answerParam(pname, "large_heap", answer);
            ORV_LOGD("large_heap=%s", answer.c_str());
            client->sendMsg(code, answer.c_str(), false, false);
            break;
        }
        case DALVIK_HEAP_UTILIZATION: {
            int pid = f.number();
            std::string answer = "-1";
            const char* pname = getPNameByPid(pid);
            ORV_LOGD("DALVIK_HEAP_UTILIZATION(%d)|%d", code, pid);
            answerParam(pname, "heap_utilization", answer);
            ORV_LOGD("heap_utilization=%s", answer.c_str());
            client->sendMsg(code, answer.c_str(), false, false);
            break;
        }
        case HARDWARE_ACCELERATION: {
            int pid = f.number();
            std::string answer = "-1";
            const char* pname = getPNameByPid(pid);
            ORV_LOGD("HARDWARE_ACCELERATION(%d)|%d", code, pid);
            answerParam(pname, "hardware_acceleration", answer);
            ORV_LOGD("hardware_acceleration=%s", answer.c_str());
            client->sendMsg(code, answer.c_str(), false, false);
            break;
        }
        case DISABLE_THERMAL: {
            std::string name = f.text();
            ORV_LOGD("DISABLE_THERMAL(%d)|%s", code, name.c_str());
            std::string param = "000";
            std::string answer = "7";
            if (mActionManager) mActionManager->findAppParam(name.c_str(), "thermal_mask", param);
            binStr2UIntStr(param, answer);
            ORV_LOGD("param=%s, len=%d => thermal_mask=%s", param.c_str(),
                     static_cast<int>(param.size()), answer.c_str());
            client->sendMsg(code, answer.c_str(), false, false);
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
            // Only reachable before start-up in tools that drive the handler on its own.
            if (Orvello::mInstance) Orvello::mInstance->dumpState(dump);
            client->sendMsg(code, dump.c_str(), false, false);
            break;
        }
        default:
            ALOGE("undefined code(%d)|%s", code, payload);
            client->sendMsg(code, "-1", false, false);
            break;
    }
}

void OrvMsgHandler::answerParam(const char* pname, const char* param, std::string& answer) {
    if (pname[0] != '\0' && mActionManager) {
        mActionManager->findAppParam(pname, param, answer);
    }
}

void OrvMsgHandler::onListView(int pid, int type) {
    const char* pname = getPNameByPid(pid);
    switch (type) {
        case 0:
            ORV_LOGD("LIST_IDLE(%d)|%d", LIST_VIEW, pid);
            mContext->onListIdle(pname, pid);
            break;
        case 1:
            ORV_LOGD("LIST_SCROLL(%d)|%d", LIST_VIEW, pid);
            mContext->onListScroll(pname, pid);
            break;
        case 2:
            ORV_LOGD("LIST_FLING(%d)|%d", LIST_VIEW, pid);
            mContext->onListFling(pname, pid);
            break;
        default:
            ALOGW("Unknown LIST_VIEW type (%d)", type);
            break;
    }
}

void OrvMsgHandler::onViewGesture(int pid, int type) {
    const char* pname = getPNameByPid(pid);
    switch (type) {
        case 0:
            ORV_LOGD("VIEW_GESTURE_DOWN(%d)|%d", VIEW_GESTURE, pid);
            mContext->onGestureDown(pname, pid);
            break;
        case 1:
            ORV_LOGD("VIEW_GESTURE_PRESS(%d)|%d", VIEW_GESTURE, pid);
            mContext->onGesturePress(pname, pid);
            break;
        case 2:
            ORV_LOGD("VIEW_GESTURE_TAP(%d)|%d", VIEW_GESTURE, pid);
            mContext->onGestureTap(pname, pid);
            break;
        case 3:
            ORV_LOGD("VIEW_GESTURE_SCROLL(%d)|%d", VIEW_GESTURE, pid);
            mContext->onGestureScroll(pname, pid);
            break;
        case 4:
            ORV_LOGD("VIEW_GESTURE_FLING(%d)|%d", VIEW_GESTURE, pid);
            mContext->onGestureFling(pname, pid);
            break;
        case 5:
            ORV_LOGD("VIEW_GESTURE_LONG_PRESS(%d)|%d", VIEW_GESTURE, pid);
            mContext->onGestureLongPress(pname, pid);
            break;
        default:
            ALOGW("Unknown GESTURE type (%d)", type);
            break;
    }
}

void OrvMsgHandler::onScale(int pid, int type) {
    const char* pname = getPNameByPid(pid);
    switch (type) {
        case 0:
            ORV_LOGD("SCALE_START(%d)|%d", SCALE, pid);
            mContext->onScaleStart(pname, pid);
            break;
        case 1:
            ORV_LOGD("SCALE_CONTINUE(%d)|%d", SCALE, pid);
            break;
        case 2:
            ORV_LOGD("SCALE_END(%d)|%d", SCALE, pid);
            mContext->onScaleEnd(pname, pid);
            break;
        default:
            ALOGW("Unknown SCALE type (%d)", type);
            break;
    }
}

void OrvMsgHandler::onConfigurationQuery(int type, const std::string& key, SocketClient* client) {
    ORV_LOGD("CONFIGURATION_QUERY(%d)|%d;%s", CONFIGURATION_QUERY, type, key.c_str());
    std::string param = "0";
    std::string answer = "0";
    std::string app;
    if (type == 0) {
        ORV_LOGD("CONFIGURATION_QUERY_BY_NAME(%d)|%d;%s", CONFIGURATION_QUERY, type, key.c_str());
        app = key;
    } else if (type == 1) {
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
    client->sendMsg(CONFIGURATION_QUERY, answer.c_str(), false, false);
}
