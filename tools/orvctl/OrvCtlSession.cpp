#include "tools/orvctl/OrvCtlSession.h"

#include <stdio.h>

#include "tools/orvctl/OrvCtlClock.h"

bool OrvCtlSession::connect(OrvConnection& conn) {
    std::string error;
    const long long deadline = OrvCtlClock::nowMs() + mOptions.waitMs;
    // Only the first connection waits: once orvd answered, a later failure is news.
    while (!conn.open(mOptions.socket, error)) {
        if (OrvCtlClock::nowMs() >= deadline) {
            if (mOptions.waitMs > 0)
                fprintf(stderr, "orvctl: waited %d ms: %s\n", mOptions.waitMs, error.c_str());
            else
                fprintf(stderr, "orvctl: %s\n", error.c_str());
            return false;
        }
        OrvCtlClock::pauseMs(10);
    }
    mOptions.waitMs = 0;
    return true;
}

int OrvCtlSession::query(int code, const std::string& payload, std::string& answer) {
    OrvConnection conn;
    if (!connect(conn)) return EXIT_UNREACHABLE;
    std::string error;
    if (!conn.send(orv::frame(code, payload), error)) {
        fprintf(stderr, "orvctl: %s\n", error.c_str());
        return EXIT_UNREACHABLE;
    }
    int replyCode = 0;
    return readReply(conn, code, std::to_string(code), replyCode, answer);
}

int OrvCtlSession::readReply(OrvConnection& conn, int sent, const std::string& label, int& code,
                             std::string& text) {
    orv::Reply reply;
    switch (conn.readReply(mOptions.timeoutMs, reply)) {
        case OrvConnection::OK:
            code = reply.code;
            text = std::move(reply.text);
            break;
        case OrvConnection::TIMED_OUT:
            fprintf(stderr, "orvctl: %s: no reply from orvd within %d ms\n", label.c_str(),
                    mOptions.timeoutMs);
            return EXIT_NO_REPLY;
        case OrvConnection::CLOSED:
        case OrvConnection::FAILED:
            fprintf(stderr, "orvctl: %s: the connection to orvd broke before a reply\n",
                    label.c_str());
            return EXIT_UNREACHABLE;
    }
    if (code != sent)
        fprintf(stderr, "orvctl: %s: the reply carries code %d, not %d\n", label.c_str(), code,
                sent);
    return EXIT_OK;
}
