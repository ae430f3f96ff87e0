#pragma once

// A trace slice for one message on the listener thread, named after its code and payload
// ("orvd:ACTIVITY_START 2301;com.x"), open for as long as the object lives. Nothing is built
// while no one traces.
class OrvMsgTrace {
  public:
    OrvMsgTrace(int code, const char* payload);
    ~OrvMsgTrace();
    OrvMsgTrace(const OrvMsgTrace&) = delete;
    OrvMsgTrace& operator=(const OrvMsgTrace&) = delete;

    // The protocol's name of a message code; "CODE_<n>" for one it does not have.
    static const char* codeName(int code, char* buffer, int size);

  private:
    bool mOpen;
};
