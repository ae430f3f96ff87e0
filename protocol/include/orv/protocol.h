#pragma once
// The words orvd understands on its control socket, shared by the daemon, its tools and the
// framework's clients so that none of them can drift from the others.
//
// A message is the frame "[code,length]payload": an opening bracket, the decimal code, a comma,
// the decimal byte length of the payload, a closing bracket, then exactly that many payload
// bytes, with no terminator. Payload fields are separated by ";". A reply is the decimal code, a
// blank, the answer text and one NUL byte.
#include <stddef.h>

#include <charconv>
#include <string>
#include <string_view>
#include <type_traits>

namespace orv {

// The reserved socket that init creates for orvd ("/dev/socket/orvd" on a device).
constexpr char kSocketName[] = "orvd";

// Message codes, with their payload fields.
enum Code : int {
    PROCESS_START = 1,            // pid;pname: a process now runs pname (first name for a pid wins)
    PROCESS_DIE = 2,              // pid;pname: the process is gone with its GL thread
    ACTIVITY_START = 3,           // pid;name[;x;y]: pid kPidLaunch means launching, else started
    ACTIVITY_DISPLAYED = 4,       // pid;pname: the activity's first frame is on the screen
    ACTIVITY_TRANSITION = 5,      // fromPid;fromName;toPid;toName: the foreground hands over
    ROTATE_START = 21,            // (none): the display starts to rotate
    ROTATE_ANIMATION_START = 22,  // (none): its animation starts (logged only)
    ROTATE_ANIMATION_END = 23,    // (none): the rotation is over
    LIST_VIEW = 33,               // pid;ListView: a list's scroll state changed
    VIEW_GESTURE = 34,            // pid;Gesture: the gesture detector recognised a gesture
    SCALE = 35,                   // pid;Scale: a pinch-zoom's progress
    GLTHREAD_ATTACH = 41,         // pid;tid: tid renders with GL for pid
    GLTHREAD_DETTACH = 42,        // pid;tid: the GL thread of pid is gone
    DALVIK_LARGE_HEAP = 101,      // pid; answers "true"/"false": the app's large-heap wish
    DALVIK_HEAP_UTILIZATION = 102,  // pid; answers the heap utilisation, "-1" unknown
    HARDWARE_ACCELERATION = 103,    // pid; answers the hardware-acceleration wish, "-1" unknown
    DISABLE_THERMAL = 104,          // name; answers the thermal mask as a decimal number
    CONFIGURATION_UPDATE = 301,     // path: a new policy file waits at path (orvd moves it)
    GOING_TO_SLEEP = 302,           // (none): the screen goes off
    WAKING_UP = 303,                // (none): the screen comes on
    CONFIGURATION_QUERY = 400,      // QueryBy;key; answers the event mask as a decimal number
    TIMEOUT = 500,                  // (none): a state's time-out ran out (orvd's own timer)
    DUMP_STATE = 900,               // (none); answers the daemon's whole state as text
};

// The name of a code as traces show it; null for a code orvd does not know.
constexpr const char* codeName(int code) {
    switch (code) {
        case PROCESS_START:
            return "PROCESS_START";
        case PROCESS_DIE:
            return "PROCESS_DIE";
        case ACTIVITY_START:
            return "ACTIVITY_START";
        case ACTIVITY_DISPLAYED:
            return "ACTIVITY_DISPLAYED";
        case ACTIVITY_TRANSITION:
            return "ACTIVITY_TRANSITION";
        case ROTATE_START:
            return "ROTATE_START";
        case ROTATE_ANIMATION_START:
            return "ROTATE_ANIMATION_START";
        case ROTATE_ANIMATION_END:
            return "ROTATE_ANIMATION_END";
        case LIST_VIEW:
            return "LIST_VIEW";
        case VIEW_GESTURE:
            return "VIEW_GESTURE";
        case SCALE:
            return "SCALE";
        case GLTHREAD_ATTACH:
            return "GLTHREAD_ATTACH";
        case GLTHREAD_DETTACH:
            return "GLTHREAD_DETTACH";
        case DALVIK_LARGE_HEAP:
            return "DALVIK_LARGE_HEAP";
        case DALVIK_HEAP_UTILIZATION:
            return "DALVIK_HEAP_UTILIZATION";
        case HARDWARE_ACCELERATION:
            return "HARDWARE_ACCELERATION";
        case DISABLE_THERMAL:
            return "DISABLE_THERMAL";
        case CONFIGURATION_UPDATE:
            return "CONFIGURATION_UPDATE";
        case GOING_TO_SLEEP:
            return "GOING_TO_SLEEP";
        case WAKING_UP:
            return "WAKING_UP";
        case CONFIGURATION_QUERY:
            return "CONFIGURATION_QUERY";
        case TIMEOUT:
            return "TIMEOUT";
        case DUMP_STATE:
            return "DUMP_STATE";
    }
    return nullptr;
}

// Second field of LIST_VIEW.
enum class ListView : int {
    Idle = 0,    // the list came to rest
    Scroll = 1,  // the user drags it
    Fling = 2,   // it moves on by itself after a fling
};

// Second field of VIEW_GESTURE.
enum class Gesture : int {
    Down = 0,       // a finger touched the view
    Press = 1,      // it stays without moving (before a tap or long press is decided)
    Tap = 2,        // a single tap
    Scroll = 3,     // a drag
    Fling = 4,      // a drag released with speed
    LongPress = 5,  // a long press
};

// Second field of SCALE.
enum class Scale : int {
    Start = 0,     // two fingers start to scale
    Continue = 1,  // the scale goes on (logged only)
    End = 2,       // the fingers are lifted
};

// The rotation events are codes of their own, without payload.
enum class Rotate : int {
    Start = ROTATE_START,
    AnimationStart = ROTATE_ANIMATION_START,
    AnimationEnd = ROTATE_ANIMATION_END,
};

// First field of CONFIGURATION_QUERY: how its key names the application. Other types get no
// reply at all.
enum class QueryBy : int {
    Name = 0,  // the key is the application's name
    Pid = 1,   // the key is the decimal pid of a process announced by PROCESS_START
};

// The pid of ACTIVITY_START while the activity is only being launched, and "unknown" anywhere.
constexpr int kPidLaunch = -1;
// orvd reads at most this many bytes of one client at a time; longer frames are reassembled.
constexpr size_t kReadMax = 511;
// A reply: "<code> <text>" ended by kReplyEnd.
constexpr char kReplySeparator = ' ';
constexpr char kReplyEnd = '\0';
// The answer to a code orvd does not know, under that same code.
constexpr char kUnknownCodeAnswer[] = "-1";
// Answers given when the policy has nothing for the application.
constexpr char kDefaultLargeHeap[] = "false";
constexpr char kDefaultHeapUtilization[] = "-1";
constexpr char kDefaultHardwareAcceleration[] = "-1";
constexpr char kDefaultThermalMask[] = "7";  // also the answer to a malformed mask
constexpr char kDefaultEventMask[] = "0";

// Names of the scenario states: in the policy document, the dump and the log.
namespace state {
constexpr char kReset[] = "reset";
constexpr char kLaunch[] = "launch";
constexpr char kStart[] = "start";
constexpr char kRun[] = "run";
constexpr char kScale[] = "scale";
constexpr char kListViewScroll[] = "listview_scroll";
constexpr char kListViewFling[] = "listview_fling";
constexpr char kRotate[] = "rotate";
constexpr char kGestureDown[] = "gesture_down";
constexpr char kGesturePress[] = "gesture_press";
constexpr char kGestureTap[] = "gesture_tap";
constexpr char kGestureScroll[] = "gesture_scroll";
constexpr char kGestureFling[] = "gesture_fling";
constexpr char kGestureLongPress[] = "gesture_long_press";
// Every one of them, in this order.
constexpr const char* kAll[] = {kReset,        kLaunch,          kStart,         kRun,
                                kScale,        kListViewScroll,  kListViewFling, kRotate,
                                kGestureDown,  kGesturePress,    kGestureTap,    kGestureScroll,
                                kGestureFling, kGestureLongPress};
// Whether `name` is one of them.
constexpr bool isName(std::string_view name) {
    for (const char* s : kAll)
        if (name == s) return true;
    return false;
}
}  // namespace state

inline void appendNumber(std::string& out, long long value) {
    char digits[24];
    auto r = std::to_chars(digits, digits + sizeof(digits), value);
    out.append(digits, r.ptr);
}

// Appends `fields` joined by ";": integers and enumerators in decimal, texts as they are.
inline void appendFields(std::string&) {}
template <typename First, typename... Rest>
void appendFields(std::string& out, const First& first, const Rest&... rest) {
    if constexpr (std::is_enum_v<First>) {
        appendNumber(out, static_cast<long long>(first));
    } else if constexpr (std::is_integral_v<First>) {
        appendNumber(out, first);
    } else {
        out.append(std::string_view(first));
    }
    if constexpr (sizeof...(rest) > 0) {
        out.push_back(';');
        appendFields(out, rest...);
    }
}

// Appends the frame of one message.
inline void appendFrame(std::string& out, int code, std::string_view payload) {
    out.push_back('[');
    appendNumber(out, code);
    out.push_back(',');
    appendNumber(out, static_cast<long long>(payload.size()));
    out.push_back(']');
    out.append(payload);
}

inline std::string frame(int code, std::string_view payload = {}) {
    std::string out;
    out.reserve(payload.size() + 16);
    appendFrame(out, code, payload);
    return out;
}

// Whether orvd answers the message: the queries, the dump and every code it does not know,
// but a CONFIGURATION_QUERY only when its type is one of QueryBy.
inline bool expectsReply(int code, std::string_view payload) {
    switch (code) {
        case PROCESS_START:
        case PROCESS_DIE:
        case ACTIVITY_START:
        case ACTIVITY_DISPLAYED:
        case ACTIVITY_TRANSITION:
        case ROTATE_START:
        case ROTATE_ANIMATION_START:
        case ROTATE_ANIMATION_END:
        case LIST_VIEW:
        case VIEW_GESTURE:
        case SCALE:
        case GLTHREAD_ATTACH:
        case GLTHREAD_DETTACH:
        case CONFIGURATION_UPDATE:
        case GOING_TO_SLEEP:
        case WAKING_UP:
        case TIMEOUT:
            return false;
        case CONFIGURATION_QUERY: {
            // The type is read as orvd reads it: leading digits, anything after ignored.
            size_t end = payload.find(';');
            std::string type(payload.substr(0, end));
            long long v = 0;
            const char* p = type.c_str();
            while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
            std::from_chars(*p == '+' ? p + 1 : p, type.c_str() + type.size(), v);
            return v == static_cast<int>(QueryBy::Name) || v == static_cast<int>(QueryBy::Pid);
        }
        default:
            return true;
    }
}

struct Reply {
    int code = 0;
    std::string text;
};

// Cuts the first complete reply off the front of `pending`; false while its end has not come.
inline bool takeReply(std::string& pending, Reply& out) {
    size_t end = pending.find(kReplyEnd);
    if (end == std::string::npos) return false;
    size_t blank = pending.find(kReplySeparator);
    size_t codeEnd = blank < end ? blank : end;
    int code = 0;
    std::from_chars(pending.data(), pending.data() + codeEnd, code);
    out.code = code;
    out.text = blank < end ? pending.substr(blank + 1, end - blank - 1) : std::string();
    pending.erase(0, end + 1);
    return true;
}

}  // namespace orv
