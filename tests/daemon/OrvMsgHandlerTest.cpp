// Framing of arrivals into frames and the code table, through a real SocketClient on a
// socketpair so that replies can be read back.
#include <string.h>
#include <sys/socket.h>
#include <sysutils/SocketClient.h>
#include <unistd.h>

#include <tuple>

#include "OrvDaemonTestUtil.h"
#include "protocol/OrvMsgHandler.h"
#include "scenario/OrvState.h"

namespace {

using Lines = std::vector<std::string>;

// A handler fed through a real client; its replies are written synchronously.
struct Wire {
    int fds[2] = {-1, -1};
    bool paired = socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0;
    SocketClient client{fds[0], true};
    OrvMsgHandler h;
    ~Wire() { close(fds[1]); }
    void feed(const std::string& b) { h.consume(b.c_str(), static_cast<int>(b.size()), &client); }
    std::string replies() {
        std::string out;
        char buf[4096];
        for (ssize_t n; (n = recv(fds[1], buf, sizeof(buf), MSG_DONTWAIT)) > 0;) out.append(buf, n);
        return out;
    }
};

// Handler lines other than the per-pass traces, with their level letter.
Lines handlerLines(const orvtest::LogCapture& log) {
    Lines out;
    for (const auto& r : log.records())
        if (r.tag == "OrvMsgHandler" && r.text.find("msgBuf=") == std::string::npos &&
            r.text.rfind("matchCnt=", 0) != 0)
            out.push_back(std::string(1, "  VDIWEF"[r.prio & 7]) + " " + r.text);
    return out;
}

// clang-format off
const std::string kNotEnough = "W msg parser error: payload length is not enough",
                  kWaitW = "W msg parser error: wait next msg",
                  kWaitE = "E msg parser error: wait next msg",
                  kClear = "E msg parser error: clear msg", kNotEmpty = "W msgBuf is not empty",
                  kSkip = "E msg parser error: fixed by skip to first head";
std::string miss(char c, const std::string& msg) {
    return std::string("E msg parser error: missing '") + c + "', broken msg(" + msg + ")";
}
std::string bad(const std::string& msg) { return "E msg parser error: invalid header, msg(" + msg + ")"; }
std::string undefined(const char* code) { return std::string(code) + " -1" + '\0'; }

struct FramingRow {
    const char* name;
    Lines arrivals, lines;
    std::string replies;
};
void PrintTo(const FramingRow& r, std::ostream* os) { *os << r.name; }
const FramingRow kFraming[] = {
    {"Timeout", {"[500,0]"}, {"D TIMEOUT(500)"}, ""},
    {"SplitPayload", {"[4,20]1234;com.ex", "ample.app"}, {kNotEnough, kWaitW, kNotEmpty, "D ACTIVITY_DISPLAYED(4)|1234;com.example.app"}, ""},
    {"GarbageBeforeHeadLosesTheNextFrame", {"xx[500,0]", "[500,0]"}, {miss('[', "xx[500,0]"), kSkip, miss(',', "["), kWaitE, kNotEmpty, bad("[[500,0]"), kClear}, ""},
    {"InvalidHeadersClear", {"[0,0]", "[abc,0]", "[7,-1]x"}, {bad("[0,0]"), kClear, bad("[abc,0]"), kClear, bad("[7,-1]x"), kClear}, ""},
    {"EmptyLength", {"[5,]"}, {"D ACTIVITY_TRANSITION(5)|0;;0;"}, ""},
    {"NegativeLengthStallsForever", {"[5,-2]x", "[7,0]", "[500,0]"}, {kNotEnough, kWaitW, kNotEmpty, kNotEnough, kWaitW, kNotEmpty, kNotEnough, kWaitW}, ""},
    {"TwoFramesInOneArrival", {"[302,0][41,9]1234;1240"}, {"D GOING_TO_SLEEP(302)", "D GLTHREAD_ATTACH(41)|1234;1240", "E cannot map pid to pname, drop event GLTHREAD_ATTACH 1234;1240"}, ""},
    {"HeaderSplitInsideTheCode", {"[7", "0,1]z"}, {miss(',', "[7"), kWaitE, kNotEmpty, "E undefined code(70)|z"}, undefined("70")},
    {"MissingClose", {"[7,3", "]abc"}, {miss(']', "[7,3"), kWaitE, kNotEmpty, "E undefined code(7)|abc"}, undefined("7")},
    {"BracketsInsidePayload", {"[7,4][x,y[8,3]a]b"}, {"E undefined code(7)|[x,y", "E undefined code(8)|a]b"}, undefined("7") + undefined("8")},
    {"TrailingGarbageIsCleared", {"[7,1]ab"}, {"E undefined code(7)|a", miss('[', "b"), kClear}, undefined("7")},
    // Payload fields read like getline over ";": absent ones are empty, integers stop where atoi does.
    {"FieldsAbsentEmptyOrExtra", {"[3,0][3,2]12[3,3]12;[3,2];a[3,11]12;a;;d;e;f"},
     {"D ACTIVITY_START(3)|0;;;", "D ACTIVITY_START(3)|12;;;", "D ACTIVITY_START(3)|12;;;",
      "D ACTIVITY_START(3)|0;a;;", "D ACTIVITY_START(3)|12;a;;d"}, ""},
    {"FieldsNumbersStopWhereAtoiDoes", {"[5,12] 7x;a;-3;b;c[41,6]+9;1 2"},
     {"D ACTIVITY_TRANSITION(5)|7;a;-3;b", "D GLTHREAD_ATTACH(41)|9;1",
      "E cannot map pid to pname, drop event GLTHREAD_ATTACH 9;1"}, ""},
    {"ViewEventsNeedAContextEvenToLog", {"[34,3]1;9[33,3]1;1[35,3]1;0[21,0]"}, {"D ROTATE_START(21)"}, ""},
};
// clang-format on

class FramingTest : public ::testing::TestWithParam<FramingRow> {
  protected:
    orvtest::TempRoot root;
    orvtest::LogCapture log;
    Wire w;
    void SetUp() override { orvtest::setDebug(true), log.clear(); }
};
using Trace = FramingTest;

TEST_P(FramingTest, ArrivalsGiveTheseDispatchesAndLines) {
    for (const auto& a : GetParam().arrivals) w.feed(a);
    EXPECT_EQ(GetParam().lines, handlerLines(log));
    EXPECT_EQ(GetParam().replies, w.replies());
}

INSTANTIATE_TEST_SUITE_P(Rows, FramingTest, ::testing::ValuesIn(kFraming),
                         [](const testing::TestParamInfo<FramingRow>& i) { return i.param.name; });

TEST(BinStr2UIntStr, ConvertsBitStringsModulo32) {
    const std::string n = "unchanged", ones(32, '1'), top = "1" + std::string(31, '0');
    // Bit 32 wraps to bit 0.
    const std::tuple<std::string, bool, std::string> rows[] = {
        {"", true, "0"},        {ones, true, "-1"}, {top, true, "-2147483648"},
        {top + "0", true, "1"}, {"12", false, n},   {"1 1", false, n},
    };
    for (const auto& [bin, ok, want] : rows) {
        std::string in = bin, out = n;
        EXPECT_EQ(ok, OrvMsgHandler::binStr2UIntStr(in, out)) << bin;
        EXPECT_EQ(want, out) << bin;
    }
}

// The whole code table against a real context and action manager, as one conversation; the
// first PROCESS_START and GLTHREAD_ATTACH of a pid are the ones kept, until the process dies.
TEST(CodeTable, ConversationWithContextAndPolicy) {
    orvtest::ScenarioEnv env;
    Wire w;
    w.h.setContext(&env.ctx);
    w.h.setActionManager(env.manager);

    struct Step {
        int code;
        const char* payload;
        const char* reply;  // null: none
        Lines lines;        // must appear, in order
        const char* state;  // null: not checked
        int glTid = -2;     // -2: not checked
    };
    // clang-format off
    const Step steps[] = {
        {1, "100;com.a", 0, {"D PROCESS_START(1)|100;com.a"}, "reset"}, {1, "100;com.other", 0, {}, 0},
        {41, "100;7", 0, {"D GLTHREAD_ATTACH(41)|100;7"}, "reset"}, {41, "100;8", 0, {}, 0},
        {3, "100;com.a;act;x", 0, {"D ACTIVITY_START(3)|100;com.a;act;x"}, "start", 7},
        {4, "100;com.a", 0, {"D ACTIVITY_DISPLAYED(4)|100;com.a"}, "run"},
        {101, "100", "101 true", {"D DALVIK_LARGE_HEAP(101)|100", "D DALVIK_HEAP_UTILIZATION(101)|100", "D large_heap=true"}, 0},
        {102, "100", "102 0.75", {"D DALVIK_HEAP_UTILIZATION(102)|100", "D heap_utilization=0.75"}, 0},
        {103, "100", "103 1", {"D HARDWARE_ACCELERATION(103)|100", "D hardware_acceleration=1"}, 0},
        {101, "999", "101 false", {}, 0}, {102, "999", "102 -1", {}, 0}, {103, "", "103 -1", {}, 0},
        {104, "com.a", "104 6", {"D DISABLE_THERMAL(104)|com.a", "D param=0110, len=4 => thermal_mask=6"}, 0},
        {104, "com.b", "104 1", {}, 0},
        {104, "", "104 0", {"D param=000, len=3 => thermal_mask=0"}, 0},
        {400, "0;com.a", "400 5", {"D CONFIGURATION_QUERY(400)|0;com.a", "D CONFIGURATION_QUERY_BY_NAME(400)|0;com.a", "D param=101, len=3 => event_mask=5"}, 0},
        {400, "1;100", "400 5", {"D CONFIGURATION_QUERY_BY_PID(400)|1;100"}, 0},
        {400, "0;", "400 0", {}, 0}, {400, "0;com.b", "400 0", {}, 0}, {400, "1;999", "400 0", {}, 0},  // "1x1": no bit string
        {400, "2;com.a", 0, {"E Unknown CONFIGURATION_QUERY type(2)"}, 0},
        {7, "what", "7 -1", {"E undefined code(7)|what"}, 0},
        {34, "100;2", 0, {"D VIEW_GESTURE_TAP(34)|100"}, "gesture_tap"},
        {34, "100;6", 0, {"W Unknown GESTURE type (6)"}, "gesture_tap"},
        {34, "100;-1", 0, {"W Unknown GESTURE type (-1)"}, "gesture_tap"},
        {500, "", 0, {"D TIMEOUT(500)"}, "run"},
        {34, "100;0", 0, {"D VIEW_GESTURE_DOWN(34)|100"}, "gesture_down"},
        {34, "100;1", 0, {"D VIEW_GESTURE_PRESS(34)|100"}, "gesture_press"},
        {34, "100;3", 0, {"D VIEW_GESTURE_SCROLL(34)|100"}, "gesture_scroll"},
        {34, "100;4", 0, {"D VIEW_GESTURE_FLING(34)|100"}, "gesture_fling"},
        {34, "100;5", 0, {"D VIEW_GESTURE_LONG_PRESS(34)|100"}, "gesture_long_press"},
        {500, "", 0, {}, "run"},
        {33, "100;1", 0, {"D LIST_SCROLL(33)|100"}, "listview_scroll"},
        {33, "100;2", 0, {"D LIST_FLING(33)|100"}, "listview_fling"},
        {33, "100;0", 0, {"D LIST_IDLE(33)|100"}, "run"},
        {33, "100;3", 0, {"W Unknown LIST_VIEW type (3)"}, "run"},
        {35, "100;0", 0, {"D SCALE_START(35)|100"}, "scale"},
        {35, "100;1", 0, {"D SCALE_CONTINUE(35)|100"}, "scale"},
        {35, "100;2", 0, {"D SCALE_END(35)|100"}, "run"},
        {35, "100;9", 0, {"W Unknown SCALE type (9)"}, "run"},
        {21, "", 0, {"D ROTATE_START(21)"}, "rotate"},
        {22, "", 0, {"D ROTATE_ANIMATION_START(22)"}, "rotate"},
        {23, "", 0, {"D ROTATE_ANIMATION_END(23)"}, "run"},
        {42, "100;7", 0, {"D GLTHREAD_DETTACH(42)|100;7"}, "run"},
        {3, "100;com.a;a;b", 0, {}, "run", -1},
        {41, "100;9", 0, {}, "run"},  // attached again, and still attached when the process dies
        {5, "100;com.a;300;com.b", 0, {"D ACTIVITY_TRANSITION(5)|100;com.a;300;com.b"}, "run"},
        {2, "100;com.a", 0, {"D PROCESS_DIE(2)|100;com.a"}, 0},
        {101, "100", "101 false", {}, 0},
        {41, "200;5", 0, {"E cannot map pid to pname, drop event GLTHREAD_ATTACH 200;5"}, 0},
        {3, "-1;com.a;x;y", 0, {}, "launch"},
        {302, "", 0, {"D GOING_TO_SLEEP(302)"}, "reset"},
        {303, "", 0, {"D WAKING_UP(303)"}, "reset"},
        // A new process given the dead one's pid starts with no GL thread of its own.
        {1, "100;com.b", 0, {}, 0}, {3, "100;com.b;a;b", 0, {}, "start", -1},
        {3, "200;com.a;a;b", 0, {}, "start", 5},  // the thread of a pid never announced is kept
    };
    // clang-format on
    for (const Step& s : steps) {
        SCOPED_TRACE(orvtest::frame(s.code, s.payload));
        env.log.clear();
        w.feed(orvtest::frame(s.code, s.payload));
        EXPECT_EQ(s.reply ? std::string(s.reply) + '\0' : "", w.replies());
        Lines lines = handlerLines(env.log);
        size_t at = 0;
        for (const auto& want : s.lines) {
            while (at < lines.size() && lines[at] != want) ++at;
            EXPECT_LT(at, lines.size()) << "missing: " << want;
        }
        EXPECT_STREQ(s.state ? s.state : "", s.state ? env.ctx.mState->getStateNameStr() : "");
        EXPECT_EQ(s.glTid, s.glTid == -2 ? -2 : env.ctx.mGLTid);
    }
}

}  // namespace

namespace {

// "[5,-2]x" never completes; below the cap everything after it is kept, as the framing rules
// say. Past 1 MiB the buffer is cleared and the next frame is heard again.
TEST_F(Trace, AStalledHeaderHoldsAtMostOneMebibyte) {
    orvtest::setDebug(false);
    w.feed("[5,-2]x");
    const std::string chunk(511, 'y');
    size_t fed = 7;
    for (; fed + chunk.size() <= (1u << 20); fed += chunk.size()) w.feed(chunk);
    w.feed("[999,0]");
    EXPECT_EQ(0, log.count("msg parser error: clear msg"));
    EXPECT_EQ("", w.replies());
    w.feed(chunk);
    EXPECT_EQ(1, log.count("msg parser error: msgBuf would pass 1048576 bytes"));
    // Cleared once for the cap, once more for the arrival itself, which holds no "[".
    EXPECT_EQ(2, log.count("msg parser error: clear msg"));
    log.clear();
    w.feed("[999,0]");
    EXPECT_EQ(undefined("999"), w.replies());
    EXPECT_EQ(0, log.count("msgBuf is not empty"));
}

}  // namespace

namespace {

// Each connection keeps its own partial frame: arrivals of two clients interleave, split inside
// headers and payloads, and one client's garbage or stalled header never reaches the other.
// A closed connection's partial frame goes with it.
TEST(PerClientFraming, InterleavedArrivalsStayWithTheirClient) {
    orvtest::TempRoot root;
    orvtest::LogCapture log;
    Wire a;
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    auto* b = new SocketClient(fds[0], true);
    auto replies = [&](SocketClient* c) {
        std::string out;
        char buf[256];
        const int fd = c == &a.client ? a.fds[1] : fds[1];
        for (ssize_t n; (n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT)) > 0;) out.append(buf, n);
        return out;
    };
    const struct {
        SocketClient* client;
        const char* bytes;
        std::string replyA, replyB;  // what each client has received after this arrival
    } steps[] = {
        {&a.client, "[7,3]a", "", ""},
        {b, "[8", "", ""},
        {&a.client, "bc[9", undefined("7"), ""},
        {b, ",2]xy", "", undefined("8")},
        {&a.client, ",0]", undefined("9"), ""},
        // Garbage, then a header that never completes, only on b.
        {b, "zz[5,-2]x", "", ""},
        {&a.client, "[10,1]", "", ""},
        {b, "[11,0]", "", ""},
        {&a.client, "q", undefined("10"), ""},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(s.bytes);
        EXPECT_TRUE(a.h.consume(s.bytes, static_cast<int>(strlen(s.bytes)), s.client));
        EXPECT_EQ(s.replyA, replies(&a.client));
        EXPECT_EQ(s.replyB, replies(b));
    }
    // Forgetting the connection takes its stalled header with it.
    a.h.forget(b);
    EXPECT_TRUE(a.h.consume("[12,0]", 6, b));
    EXPECT_EQ(undefined("12"), replies(b));
    a.h.forget(b);
    b->decRef();
    close(fds[1]);
}

// A reply the client does not take fails the arrival: the frames after it are left alone.
TEST(PerClientFraming, AnUndeliverableReplyStopsTheArrival) {
    orvtest::TempRoot root;
    orvtest::LogCapture log;
    orvtest::setDebug(true);
    Wire w;
    close(w.fds[1]);
    w.fds[1] = -1;
    EXPECT_FALSE(w.h.consume("[7,0][302,0]", 12, &w.client));
    EXPECT_EQ(1, log.countContaining(") takes no replies: dropped", "OrvMsgHandler"));
    EXPECT_EQ(0, log.countContaining("GOING_TO_SLEEP"));
}

}  // namespace
