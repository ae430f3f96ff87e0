#pragma once
#include <string>
#include <string_view>
#include <unordered_map>

class OrvActionManager;
class OrvContext;
class SocketClient;

// Cuts the control socket's byte stream into "[code,len]payload" frames and turns each one into
// a context event, a registry update, a policy update or a query answer. Listener thread only.
class OrvMsgHandler {
  public:
    OrvMsgHandler();
    ~OrvMsgHandler();
    OrvMsgHandler(const OrvMsgHandler&) = delete;
    OrvMsgHandler& operator=(const OrvMsgHandler&) = delete;

    // `data` holds `len` bytes followed by a NUL. false when a reply to `client` could not be
    // delivered: the client is then to be dropped, and the rest of its bytes are not handled.
    bool consume(const char* data, int len, SocketClient* client);
    // The client's connection has ended: its partial frame goes with it.
    void forget(const SocketClient* client);
    void consumeMsg(int code, const char* payload, SocketClient* client);

    const char* getPNameByPid(int pid);
    // Both keep an existing entry.
    void addPidPNamePair(int pid, std::string_view pname);
    void addIdPair(int pid, int tid);

    // "0"/"1" digits, last one bit 0, to the decimal text of the 32-bit sum.
    static bool binStr2UIntStr(std::string& bin, std::string& out);

    void setContext(OrvContext* context) { mContext = context; }
    void setActionManager(OrvActionManager* manager) { mActionManager = manager; }
    // Writes the answer to DUMP_STATE. The daemon above installs it when it wires the handler,
    // so this layer never names the daemon; without one the answer is empty.
    using StateDumper = void (*)(void* owner, std::string& out);
    void setStateDumper(StateDumper dumper, void* owner) {
        mDumper = dumper;
        mDumperOwner = owner;
    }

  private:
    size_t cutFrames(std::string& buf, SocketClient* client);
    // Every reply goes out here; a failed one marks the client as undeliverable.
    void reply(SocketClient* client, int code, const char* text);
    // LIST_VIEW, VIEW_GESTURE and SCALE by their type.
    void onViewEvent(int code, int pid, int type);
    // Answers a parameter of the app that runs as `pid`, `fallback` when there is none.
    void replyAppParam(SocketClient* client, int code, int pid, const char* trace,
                       const char* param, const char* fallback);
    void onConfigurationQuery(int type, const std::string& key, SocketClient* client);
    int glTidOf(int pid);

    OrvContext* mContext;
    OrvActionManager* mActionManager;
    StateDumper mDumper;
    void* mDumperOwner;
    std::unordered_map<int, std::string> mPidNameMap;
    std::unordered_map<int, int> mGLTidMap;
    // Each connection's partial frame, from its first arrival until it closes.
    std::unordered_map<const SocketClient*, std::string> mFrames;
    bool mReplyFailed;
};
