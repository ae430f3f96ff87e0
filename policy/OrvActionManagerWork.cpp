#define LOG_TAG "OrvActionManager"
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/OrvDevicePath.h"
#include "core/OrvLockGuard.h"
#include "core/OrvLog.h"
#include "crypto/OrvPolicyFile.h"
#include "policy/OrvActionManager.h"
#include "policy/OrvJsonActionDB.h"
#include "policy/OrvOrEmpty.h"

static const char* const POLICY_DB_FILE = "/data/orvpolicy";
static const char* const POLICY_DB_FILE_BUILTIN = "/system/etc/orvpolicy";

OrvActionManager::OrvAction::OrvAction(const char* name, const char* fromApp, int fromPid,
                                       int fromGLTid, const char* fromState, const char* toApp,
                                       int toPid, int toGLTid, const char* toState,
                                       const char* event)
    : OrvWork(name, true),
      mFromAppName(orEmpty(fromApp)),
      mFromPid(fromPid),
      mFromGLTid(fromGLTid),
      mFromStateName(fromState),
      mToAppName(orEmpty(toApp)),
      mToPid(toPid),
      mToGLTid(toGLTid),
      mToStateName(toState),
      mEventName(event) {}

OrvActionManager::OrvAction::OrvAction(const char* fromApp, int fromPid, int fromGLTid,
                                       const char* fromState, const char* toApp, int toPid,
                                       int toGLTid, const char* toState)
    : OrvAction("APP-SWITCH", fromApp, fromPid, fromGLTid, fromState, toApp, toPid, toGLTid,
                toState, "") {}

OrvActionManager::OrvAction::OrvAction(const char* fromState, const char* toState, const char* app,
                                       int pid, int glTid)
    : OrvAction("STATE-CHANGE", app, pid, glTid, fromState, app, pid, glTid, toState, "") {}

OrvActionManager::OrvAction::OrvAction(const char* app, const char* state, int pid, int glTid,
                                       const char* event)
    : OrvAction("EVENT", app, pid, glTid, state, app, pid, glTid, state, event) {}

void OrvActionManager::OrvAction::send(OrvActionManager* manager) {
    if (manager == nullptr) {
        ALOGE("send %s failed: No target ActionManager", getName());
        return;
    }
    mActionManager = manager;
    manager->mActionQueue.push_back(this);
}

void OrvActionManager::OrvAppChangeAction::execute() {
    if (mActionManager == nullptr) {
        ALOGE("OrvAppChangeAction execute failed: No ActionManager");
        return;
    }
    mActionManager->executeAppChangeAction(this);
}

void OrvActionManager::OrvStateChangeAction::execute() {
    if (mActionManager == nullptr) {
        ALOGE("OrvStateChangeAction execute failed: No ActionManager");
        return;
    }
    mActionManager->executeStateChangeAction(this);
}

OrvActionManager::OrvPrepareDBUpdateWork::OrvPrepareDBUpdateWork(const char* path)
    : OrvWork("DB-UPDATE", true), mPath(orEmpty(path)) {}

void OrvActionManager::OrvPrepareDBUpdateWork::execute() {
    ALOGI("prepare UpdateDB...");
    OrvActionManager* manager = mActionManager;
    if (manager == nullptr) {
        ALOGE("execute %s failed: No target ActionManager", getName());
        return;
    }
    OrvLockGuard guard(manager->mUpdateLock);
    // The file is read once: what is checked is what is stored, whatever happens to the file
    // meanwhile. Stored durably first, accepted after, so a reboot brings back what was accepted.
    std::string text;
    OrvActionDB* db = OrvJsonActionDB::readPolicyFile(mPath.c_str(), text)
                          ? manager->loadDBFromText(mPath.c_str(), text)
                          : nullptr;
    std::string target = OrvDevicePath(POLICY_DB_FILE);
    if (db != nullptr && !OrvPolicyFile::store(target.c_str(), text.data(), text.size())) {
        ALOGE("failed to replace new policy file to %s (%s)", target.c_str(), strerror(errno));
        delete db;
        db = nullptr;
    }
    if (db == nullptr) {
        ALOGE("load new DB %s failed)", mPath.c_str());
    } else {
        delete manager->mNewDB;
        manager->mNewDB = db;
        ALOGI("new DB %s is prepared to update)", mPath.c_str());
        removeOffered(mPath.c_str(), target.c_str());
    }
}

// The offered file goes, as a move would take it, unless it is the stored file itself.
void OrvActionManager::OrvPrepareDBUpdateWork::removeOffered(const char* path, const char* target) {
    struct stat offered, stored;
    if (lstat(path, &offered) == 0 && stat(target, &stored) == 0 &&
        offered.st_dev == stored.st_dev && offered.st_ino == stored.st_ino) {
        return;
    }
    if (unlink(path) != 0 && errno != ENOENT) {
        ALOGE("cannot remove %s (errno=%d)", path, errno);
    }
}

OrvActionDB* OrvActionManager::loadDBFromfile(const char* path) {
    if (path == nullptr) path = "";
    std::string text;
    if (!OrvJsonActionDB::readPolicyFile(path, text)) {
        ALOGE("decrypt DB %s failed", path);
        return nullptr;
    }
    return loadDBFromText(path, text);
}

OrvActionDB* OrvActionManager::loadDBFromText(const char* path, const std::string& text) {
    OrvActionDB* db = OrvJsonActionDB::createDBFromText(path, text, false);
    if (db == nullptr) db = OrvJsonActionDB::createDBFromText(path, text, true);
    if (db == nullptr) return nullptr;

    float minParser = db->getDBMinSupportParserVersion();
    float parser = db->getParserVersion();
    ALOGI("minSupportedParserVersion:%.2f, ParserVersion:%.2f", minParser, parser);
    if (minParser > parser) {
        ALOGE("Parser Version is too old");
        delete db;
        return nullptr;
    }
    // Callers hold mUpdateLock (or run before the action thread starts), so mDB stays put.
    float current = mDB ? mDB->getDBVersion() : 0.0f;
    float loaded = db->getDBVersion();
    ALOGI("curDBVersion:%.2f, loadDBVersion:%.2f", current, loaded);
    if (current >= loaded) {
        ALOGE("DB Version is too old");
        delete db;
        return nullptr;
    }
    // A loop or a chain of groups too deep would overflow the action thread's stack, a loop or
    // an exponential expansion spin it for good (or for hours) on first use.
    std::string cycle = db->findCycle();
    if (!cycle.empty()) {
        ALOGE("%s in %s", cycle.c_str(), path);
        delete db;
        return nullptr;
    }
    return db;
}

bool OrvActionManager::init() {
    // What a crash may have left: the plain text of a protected policy, a half-stored update.
    OrvJsonActionDB::removeIntermediateFile();
    unlink(OrvPolicyFile::storeTemp(OrvDevicePath(POLICY_DB_FILE).c_str()).c_str());
    if (mDB != nullptr) {
        ALOGW("db already load");
    } else {
        std::string path = OrvDevicePath(POLICY_DB_FILE);
        mDB = loadDBFromfile(path.c_str());
        if (mDB == nullptr) {
            path = OrvDevicePath(POLICY_DB_FILE_BUILTIN);
            mDB = loadDBFromfile(path.c_str());
        }
        if (mDB == nullptr) {
            ALOGI("failed to load DB");
            return false;
        }
        ALOGI("DB load (%s)", path.c_str());
    }
    if (mDB == nullptr) {
        ALOGW("no DB loaded");
        mActionQueue.start();
        return true;
    }
    mDB->executePolicyReset();
    mActionQueue.start();
    return true;
}

void OrvActionManager::prepareUpdateDB(const char* path) {
    OrvPrepareDBUpdateWork* work = new OrvPrepareDBUpdateWork(path);
    work->mActionManager = this;
    mUpdateQueue.push_back(work);
}

void OrvActionManager::waitDBUpdate() {
    mUpdateQueue.run();
}
