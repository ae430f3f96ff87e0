#pragma once
#include <pthread.h>

#include <string>
#include <vector>

#include "policy/OrvActionManager.h"

class OrvIoctlCfg;

// A policy database: the executions the action manager drives, the bookkeeping that names the
// method being run in every log line, and the primitives the methods use.
class OrvActionDB {
  public:
    typedef OrvActionManager::OrvAction OrvAction;

    // One nesting level of what is running: an action set, then each group inside it.
    class OrvActionInfo {
      public:
        OrvActionInfo(int index, const char* name) : mIndex(index), mName(name ? name : "") {}
        void setName(const char* name) { mName = name ? name : ""; }

        int mIndex;
        std::string mName;
    };

    explicit OrvActionDB(bool encrypted);

    virtual bool findApp(const char* appName) = 0;
    virtual bool findAppParam(const char* appName, const char* paramName, std::string& out) = 0;
    virtual void executePolicyReset() = 0;
    virtual int executeStateChangeAction(OrvAction* action) = 0;
    virtual int executeAppChangeAction(OrvAction* action) = 0;
    virtual int executeEventAction(OrvAction* action) = 0;
    virtual int executeOnEnterAction(OrvAction* action) = 0;
    virtual int executeOnExitAction(OrvAction* action) = 0;
    virtual int executePolicyAction(OrvAction* action) = 0;
    virtual int executeDefaultResetAction(OrvAction* action) = 0;
    virtual void dumpState(std::string& out);
    virtual float getParserVersion() = 0;
    virtual const char* getParserVersionString() = 0;
    virtual float getDBVersion() = 0;
    virtual std::string getDBVersionString() = 0;
    virtual float getDBMinSupportParserVersion() = 0;
    virtual std::string getDBMinSupportParserVersionString() = 0;
    // A reference or group loop the document would send the executor into, or groups nesting or
    // expanding beyond the executor's bounds; empty when none.
    virtual std::string findCycle() { return std::string(); }
    // The top-level "on_stop" set, run as the daemon stops; 0 after running or without one.
    virtual bool hasStopAction() { return false; }
    virtual int executeStopAction(OrvAction* /*action*/) { return 0; }
    virtual ~OrvActionDB();

    bool isEncrypted() const { return mEncrypted; }

    // Bookkeeping; each takes mInfoLock for its own duration only.
    void pushActionInfo(OrvActionInfo* info);
    void popActionInfo();
    void setCurActionInfo(const char* name);
    void clearActionSetInfo();
    std::string getCurActionInfoStr();
    std::string getLastActionSet();

    // Primitives of the methods; failures are logged with the current location.
    int getSystemProperty(const char* name, std::string& out);
    void setSystemProperty(const char* name, const char* value);
    static int readFile(const char* path, char* buffer, int capacity);
    static int readFile(const char* path, std::string& out);
    int writeFile(const char* path, const char* text);
    // Runs "program arguments"; past `timeoutMs` the command and its process group are killed.
    void shell(const char* program, const char* arguments, int timeoutMs = kProgramTimeoutMs);
    int writeIoctl(const char* path, OrvIoctlCfg& cfg, void* arg);
    void writeOrvIoctl(const char* path, int cmd, const char* value);
    int getVarString(OrvAction* action, const char* name, std::string& out);
    static int getMethodType(const char* method);

    // How long a "program" may run unless its method object says otherwise.
    static constexpr int kProgramTimeoutMs = 5000;

    enum MethodType {
        METHOD_XFS = 0,
        METHOD_ORV_IOCTL = 1,
        METHOD_IOCTL = 2,
        METHOD_PROP = 3,
        METHOD_PROGRAM = 4,
        METHOD_GROUP = 5,
        METHOD_UNKNOWN = 6,
    };

  protected:
    // Sets the current record and key of a keyed execution.
    void setCurActionSet(OrvAction* action, const char* key, const std::string& reference);
    void setLastActionSet(const std::string& text);
    // Names the current element of the innermost level; `clearName` empties its name too.
    void setCurActionIndex(int index, bool clearName);
    // The same with the element's method name, in one hold.
    void setCurActionLevel(int index, const char* name);
    // setCurActionSet and pushActionInfo(level) in one hold, for a set run with nothing
    // between the two that could read the bookkeeping.
    void openActionSet(OrvAction* action, const char* key, const std::string& reference,
                       OrvActionInfo* level);
    // popActionInfo, setLastActionSet(last) and clearActionSetInfo in one hold.
    void closeActionSet(const std::string& last);

    bool mEncrypted;
    // Written by the action thread, read by state dumps; kept under mInfoLock.
    std::string mLastActionSet;
    OrvAction* mCurAction;
    const char* mCurActionSetKey;
    std::string mCurReference;
    // A vector, not a list: a push within its capacity allocates nothing.
    std::vector<OrvActionInfo*> mActionInfoStack;
    pthread_mutex_t mInfoLock;

  private:
    void setCurActionSetLocked(OrvAction* action, const char* key, const std::string& reference);
    void clearActionSetInfoLocked();

    OrvActionDB(const OrvActionDB&) = delete;
    OrvActionDB& operator=(const OrvActionDB&) = delete;
};
