#pragma once
#include <pthread.h>

#include <string>

#include "core/OrvWork.h"
#include "core/OrvWorkQueue.h"

class OrvActionDB;

// Front of the policy engine: owns the policy database, runs action records on its action queue
// and database replacements on its update queue. Lock order: mUpdateLock before mDBLock.
class OrvActionManager {
  public:
    // One move of the scenario state machine, executed on the action queue.
    class OrvAction : public OrvWork {
      public:
        // "APP-SWITCH"
        OrvAction(const char* fromApp, int fromPid, int fromGLTid, const char* fromState,
                  const char* toApp, int toPid, int toGLTid, const char* toState);
        // "STATE-CHANGE": note the state names come first.
        OrvAction(const char* fromState, const char* toState, const char* app, int pid, int glTid);
        // "EVENT"
        OrvAction(const char* app, const char* state, int pid, int glTid, const char* event);
        void execute() override {}
        ~OrvAction() override {}

        // Queues the record on the manager's action queue; ownership passes with it.
        void send(OrvActionManager* manager);

        OrvActionManager* mActionManager = nullptr;
        std::string mFromAppName;
        int mFromPid;
        int mFromGLTid;
        const char* mFromStateName;  // static state names, not copied
        std::string mToAppName;
        int mToPid;
        int mToGLTid;
        const char* mToStateName;
        const char* mEventName;

      private:
        OrvAction(const char* name, const char* fromApp, int fromPid, int fromGLTid,
                  const char* fromState, const char* toApp, int toPid, int toGLTid,
                  const char* toState, const char* event);
    };

    class OrvAppChangeAction : public OrvAction {
      public:
        OrvAppChangeAction(const char* fromApp, int fromPid, int fromGLTid, const char* fromState,
                           const char* toApp, int toPid, int toGLTid, const char* toState)
            : OrvAction(fromApp, fromPid, fromGLTid, fromState, toApp, toPid, toGLTid, toState) {}
        void execute() override;
    };

    class OrvStateChangeAction : public OrvAction {
      public:
        OrvStateChangeAction(const char* fromState, const char* toState, const char* app, int pid,
                             int glTid)
            : OrvAction(fromState, toState, app, pid, glTid) {}
        void execute() override;
    };

    // Loads a replacement database on the update queue; it takes effect at the next app switch.
    class OrvPrepareDBUpdateWork : public OrvWork {
      public:
        explicit OrvPrepareDBUpdateWork(const char* path);
        void execute() override;
        ~OrvPrepareDBUpdateWork() override {}

        OrvActionManager* mActionManager = nullptr;
        std::string mPath;

      private:
        static void removeOffered(const char* path, const char* target);
    };

    OrvActionManager();
    ~OrvActionManager();

    bool init();  // loads the database, runs the policy reset, starts the action queue thread
    OrvActionDB* loadDBFromfile(const char* path);
    // Checks the content of `path`, already read, as loadDBFromfile checks the file.
    OrvActionDB* loadDBFromText(const char* path, const std::string& text);
    void prepareUpdateDB(const char* path);
    void waitDBUpdate();  // serves the update queue on the calling thread; never returns

    void executeAppChangeAction(OrvAction* action);
    void executeStateChangeAction(OrvAction* action);
    void checkUpdateDB();

    // The policy's "on_stop" set (OrvStopAction queues it); action-queue thread for the run.
    bool hasStopAction();
    void executeStopAction(OrvAction* action);

    bool findApp(const char* appName);
    bool findAppParam(const char* appName, const char* paramName, std::string& out);
    void dumpState(std::string& out);

  private:
    void runAction(OrvAction* action, bool appSwitch);

    friend class OrvAction;
    friend class OrvPrepareDBUpdateWork;

    OrvActionDB* mDB;
    OrvActionDB* mNewDB;
    pthread_mutex_t mDBLock;
    pthread_mutex_t mUpdateLock;
    OrvWorkQueue mActionQueue;
    OrvWorkQueue mUpdateQueue;
};
