#pragma once
#include <json/json.h>
#include <pthread.h>

#include <initializer_list>
#include <string>
#include <unordered_map>
#include <vector>

#include "policy/OrvActionDB.h"
#include "policy/OrvFallbackProfile.h"
#include "policy/OrvSettledCache.h"

class OrvIoctlCfg;

// The policy database read from one JSON document.
class OrvJsonActionDB : public OrvActionDB {
  public:
    enum ActionDir {
        ACTION_DIR_NONE = -1,
        ACTION_DIR_EXIT = 0,
        ACTION_DIR_ENTER = 1,
    };

    // Takes ownership of `root`.
    OrvJsonActionDB(Json::Value* root, bool encrypted);

    // Reads (and for `encrypted`, first decrypts) a policy file; null on failure.
    static OrvJsonActionDB* createDB(const char* path, bool encrypted);
    // The same on the content of `path`, already read; `path` only names it in log lines.
    static OrvJsonActionDB* createDBFromText(const char* path, const std::string& text,
                                             bool encrypted);
    // Reads the policy file at `path` whole, logging why when it cannot.
    static bool readPolicyFile(const char* path, std::string& text);
    // Removes what a crash may have left of a decrypted policy.
    static void removeIntermediateFile();

    bool findApp(const char* appName) override;
    bool findAppParam(const char* appName, const char* paramName, std::string& out) override;
    void executePolicyReset() override;
    int executeStateChangeAction(OrvAction* action) override;
    int executeAppChangeAction(OrvAction* action) override;
    int executeEventAction(OrvAction* action) override;
    int executeOnEnterAction(OrvAction* action) override;
    int executeOnExitAction(OrvAction* action) override;
    int executePolicyAction(OrvAction* action) override;
    int executeDefaultResetAction(OrvAction* action) override;
    void dumpState(std::string& out) override;
    float getParserVersion() override;
    const char* getParserVersionString() override;
    float getDBVersion() override;
    std::string getDBVersionString() override;
    float getDBMinSupportParserVersion() override;
    std::string getDBMinSupportParserVersionString() override;
    std::string findCycle() override;
    bool hasStopAction() override;
    int executeStopAction(OrvAction* action) override;
    ~OrvJsonActionDB() override;

    // Follows "action" → "reference" until a set is found; null when none. `referenceOut` names
    // the application the set was taken from when it was not `appName` itself.
    Json::Value* getActionSet(const char* appName, const char* stateName, const char* key,
                              Json::Value** referenceOut);

    int doActions(Json::Value& set, OrvAction* action, ActionDir dir);
    int doAction(Json::Value& methodObject, OrvAction* action);
    void doGroupAction(Json::Value& methodObject, OrvAction* action);

    int getValueStringByType(const Json::Value& methodObject, OrvAction* action, std::string& out);
    int getValueIntByType(const Json::Value& methodObject, OrvAction* action, int& out);
    int getValueByteArrayByType(const Json::Value& methodObject, OrvAction* action,
                                std::vector<unsigned char>& out);

    void doXfsAction(Json::Value& methodObject, OrvAction* action);
    void doSetPropAction(Json::Value& methodObject, OrvAction* action);
    void doProgramAction(Json::Value& methodObject, OrvAction* action);
    void doIoctlAction(Json::Value& methodObject, OrvAction* action);
    void doOrvIoctlAction(Json::Value& methodObject, OrvAction* action);
    int getIoctlCfg(const Json::Value& methodObject, const char* key, OrvIoctlCfg& cfg);

    // "v1.5" gives 1.5; the first character is always taken as the prefix.
    static float parseVersion(const char* text);

  private:
    // Walks members from the document root with the inserting operator[], under mDocLock. Null
    // (and one error line) when a node on the way is neither an object nor null.
    Json::Value* lookup(std::initializer_list<const char*> keys);
    bool actionLink(const char* app, const char* state, const char* key, Json::Value** set,
                    Json::Value** reference);
    // The type and, for a scalar, the text of the node at `keys`, both read under mDocLock: a
    // lookup on another thread may turn a null node into an object at any moment.
    bool lookupScalar(std::initializer_list<const char*> keys, Json::ValueType& type,
                      std::string& text);
    // The walk of lookup(), for a caller holding mDocLock; null when a node on the way is
    // neither an object nor null, with `depth` the number of keys taken.
    Json::Value* walk(std::initializer_list<const char*> keys, size_t& depth);
    void logNotObject(std::initializer_list<const char*> keys, size_t depth);
    std::string memberText(const char* key, const char* absent);
    Json::Value* defaultResetSet();
    // findAppParam without the cache; `settled` becomes false when its answer may yet change.
    bool resolveParam(const char* appName, const char* paramName, std::string& out, bool& settled);
    // findAppParam along `appName`'s own "param" chain.
    bool findOwnParam(const std::string& appName, const char* paramName, std::string& out);
    // True when findOwnParam's answer (`found`, `text`) can no longer change and a repeat would
    // log nothing: on every link "applications", the application and its "param" are objects and
    // the parameter is text, or the chain ends without "reference" or at an application that is
    // null (lookups only ever give such an entry null members, so it never answers).
    bool isSettledParam(const std::string& appName, const char* paramName, bool found,
                        const std::string& text);
    // The set that runs for `app`: its own, else the fallback's. Action thread only.
    Json::Value* findActionSet(const char* app, const char* state, const char* key,
                               Json::Value** reference);
    // getActionSet, answered from mSetCache once the answer is settled.
    Json::Value* findOwnActionSet(const char* app, const char* state, const char* key,
                                  Json::Value** reference);
    // True when getActionSet's answer (`set`, `reference`) can no longer change and logged
    // nothing: on every link the application, its "action" and the state are objects already,
    // and the chain ends at a set or at an application without "reference". Lookups only add
    // null members and turn null nodes into objects, and none goes below a set or through a
    // "reference" (but for a state of that name, which findActionSet keeps out).
    bool isSettledSet(const char* app, const char* state, const char* key, const Json::Value* set,
                      const Json::Value* reference);
    int runKeyedAction(OrvAction* action, const char* app, const char* state, const char* key,
                       ActionDir dir, const char* noDocError);
    int runTrackedSet(OrvAction* action, const char* key, Json::Value* set,
                      const Json::Value* reference, ActionDir dir, const std::string& last);
    int runSequence(OrvAction* action, bool appSwitch);
    // Runs the method objects of `set` on a new nesting level; `clearNames` empties the level's
    // name before each element (a group's level keeps the previous method's name).
    void runMethods(Json::Value& set, OrvAction* action, bool clearNames);
    // The elements of `set`, an array, on the innermost level.
    void runLevel(Json::Value& set, OrvAction* action, bool clearNames);
    // doAction for an object without a form: read whole on every run.
    int doActionRead(Json::Value& methodObject, OrvAction* action);
    void runSequenceSet(OrvAction* action, const char* app, const char* state, const char* key,
                        ActionDir dir);
    int stringOfValue(const Json::Value& valueObject, const Json::Value& typeValue,
                      OrvAction* action, std::string& out);
    // Members of a method or value object; anything but an object has none.
    static const Json::Value& member(const Json::Value& object, const char* key);
    // "path" of a method object as text, or null after the error line.
    const char* methodPath(const Json::Value& methodObject);
    // The shared start of "xfs", "prop" and "program": the path and the value as text.
    bool pathAndText(const Json::Value& methodObject, OrvAction* action, const char*& path,
                     std::string& text);

    // A method object as read once. Method objects sit in arrays, which lookups never enter, so
    // what they hold never changes while the document lives.
    struct MethodForm {
        // METHOD_XFS or METHOD_PROP when the object reads without a log line into a text path
        // and a value that needs no action record; else METHOD_UNKNOWN, and doAction reads the
        // object every time.
        int type;
        const char* name;  // "method"
        const char* path;
        std::string text;  // the value as text
    };
    const MethodForm& methodForm(const Json::Value& methodObject);
    // The form's write, as its handler would make it.
    void runMethodForm(const MethodForm& form);

    Json::Value* mRoot;
    // Lookups grow the document; the listener's queries and the action thread both look up.
    pthread_mutex_t mDocLock;
    struct SetAnswer {
        Json::Value* set;        // null: there is none
        Json::Value* reference;  // the last "reference" followed, null when none was
    };
    // Action thread only.
    OrvSettledCache<SetAnswer> mSetCache;
    // The keys every state change asks for, answered together per application and state, so
    // that one look-up serves them; other keys (events) stay in mSetCache.
    enum { SLOT_ON_EXIT, SLOT_ON_ENTER, SLOT_POLICY, SLOT_COUNT };
    struct StateSets {
        SetAnswer answers[SLOT_COUNT];
        bool known[SLOT_COUNT];
    };
    OrvSettledCache<StateSets> mStateSets;
    // The two entries found last and their names: a change leaves the state the previous one
    // entered, and state changes mostly go back and forth between two states.
    struct RecentSets {
        StateSets* sets = nullptr;
        std::string app;
        std::string state;
    };
    RecentSets mRecentSets[2];
    int mOlderRecent = 0;
    // The entry of `app` and `state`, null when none is known yet.
    StateSets* findStateSets(const char* app, const char* state);
    void clearSetCaches();
    struct ParamAnswer {
        bool found;
        std::string text;
    };
    // Under mDocLock: the listener's queries and tests on other threads ask.
    OrvSettledCache<ParamAnswer> mParamCache;
    // Action thread only, like the execution that uses them.
    std::unordered_map<const Json::Value*, MethodForm> mMethodForms;
    // The forms of an array's elements, in order.
    std::unordered_map<const Json::Value*, std::vector<const MethodForm*>> mSetForms;
    const std::vector<const MethodForm*>& formsOf(Json::Value& set);
    std::string mLastScratch;  // runKeyedAction's name of the set it runs
    OrvFallbackProfile mFallback;
};
