// Framing of arrivals into frames and the code table, through a real SocketClient on a
// socketpair so that replies can be read back.
#include <sys/socket.h>
#include <sysutils/SocketClient.h>
#include <unistd.h>

#include "OrvDaemonTestUtil.h"
#include "protocol/OrvMsgHandler.h"
#include "scenario/OrvState.h"

namespace {

class Wire {
  public:
    Wire() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        mPeer = fds[1];
        mClient = new SocketClient(fds[0], true);
    }
    ~Wire() {
        delete mClient;
        close(mPeer);
    }
    SocketClient* client() { return mClient; }
    // Everything the handler has replied so far (replies are written synchronously).
    std::string replies() {
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = recv(mPeer, buf, sizeof(buf), MSG_DONTWAIT)) > 0) out.append(buf, n);
        return out;
    }

  private:
    int mPeer;
    SocketClient* mClient;
};

std::string frame(int code, const std::string& payload) {
    return "[" + std::to_string(code) + "," + std::to_string(payload.size()) + "]" + payload;
}

void feed(OrvMsgHandler& h, Wire& w, const std::string& bytes) {
    h.consume(bytes.c_str(), static_cast<int>(bytes.size()), w.client());
}

// Handler lines other than the per-pass traces, with their level letter.
std::vector<std::string> handlerLines(const orvtest::LogCapture& log) {
    std::vector<std::string> out;
    for (const auto& r : log.records()) {
        if (r.tag != "OrvMsgHandler") continue;
        if (r.text.rfind("consume(msg=", 0) == 0 || r.text.rfind("msgBuf=", 0) == 0 ||
            r.text.rfind("matchCnt=", 0) == 0)
            continue;
        const char* level = r.prio == ANDROID_LOG_ERROR  ? "E "
                            : r.prio == ANDROID_LOG_WARN ? "W "
                                                         : "D ";
        out.push_back(level + r.text);
    }
    return out;
}

struct FramingRow {
    const char* name;
    std::vector<std::string> arrivals;
    std::vector<std::string> lines;
    std::string replies;
};

const std::string kNotEnough = "W msg parser error: payload length is not enough";
const std::string kWaitW = "W msg parser error: wait next msg";
const std::string kWaitE = "E msg parser error: wait next msg";
const std::string kClear = "E msg parser error: clear msg";
const std::string kNotEmpty = "W msgBuf is not empty";

const FramingRow kFraming[] = {
    {"Timeout", {"[500,0]"}, {"D TIMEOUT(500)"}, ""},
    {"SplitPayload",
     {"[4,20]1234;com.ex", "ample.app"},
     {kNotEnough, kWaitW, kNotEmpty, "D ACTIVITY_DISPLAYED(4)|1234;com.example.app"},
     ""},
    {"GarbageBeforeHeadLosesTheNextFrame",
     {"xx[500,0]", "[500,0]"},
     {"E msg parser error: missing '[', broken msg(xx[500,0])",
      "E msg parser error: fixed by skip to first head",
      "E msg parser error: missing ',', broken msg([)", kWaitE, kNotEmpty,
      "E msg parser error: invalid header, msg([[500,0])", kClear},
     ""},
    {"SkipDiscardsEverythingAfterTheHead",
     {"ab[7,0][8,0]"},
     {"E msg parser error: missing '[', broken msg(ab[7,0][8,0])",
      "E msg parser error: fixed by skip to first head",
      "E msg parser error: missing ',', broken msg([)", kWaitE},
     ""},
    {"ZeroCode", {"[0,0]"}, {"E msg parser error: invalid header, msg([0,0])", kClear}, ""},
    {"TextCode", {"[abc,0]"}, {"E msg parser error: invalid header, msg([abc,0])", kClear}, ""},
    {"MinusOneLength",
     {"[7,-1]x"},
     {"E msg parser error: invalid header, msg([7,-1]x)", kClear},
     ""},
    {"EmptyLength", {"[5,]"}, {"D ACTIVITY_TRANSITION(5)|0;;0;"}, ""},
    {"NegativeLengthStallsForever",
     {"[5,-2]x", "[7,0]", "[500,0]"},
     {kNotEnough, kWaitW, kNotEmpty, kNotEnough, kWaitW, kNotEmpty, kNotEnough, kWaitW},
     ""},
    {"TwoFramesInOneArrival",
     {"[302,0][41,9]1234;1240"},
     {"D GOING_TO_SLEEP(302)", "D GLTHREAD_ATTACH(41)|1234;1240",
      "E cannot map pid to pname, drop event GLTHREAD_ATTACH 1234;1240"},
     ""},
    {"NoHeadAtAll",
     {"garbage"},
     {"E msg parser error: missing '[', broken msg(garbage)", kClear},
     ""},
    {"MissingComma",
     {"[7", ",0]"},
     {"E msg parser error: missing ',', broken msg([7)", kWaitE, kNotEmpty, "E undefined code(7)|"},
     std::string("7 -1\0", 5)},
    {"MissingClose",
     {"[7,3", "]abc"},
     {"E msg parser error: missing ']', broken msg([7,3)", kWaitE, kNotEmpty,
      "E undefined code(7)|abc"},
     std::string("7 -1\0", 5)},
    {"BracketsInsidePayload",
     {"[7,4][x,y[8,3]a]b"},
     {"E undefined code(7)|[x,y", "E undefined code(8)|a]b"},
     std::string("7 -1\0008 -1\0", 10)},
    {"TrailingGarbageIsCleared",
     {"[7,1]ab"},
     {"E undefined code(7)|a", "E msg parser error: missing '[', broken msg(b)", kClear},
     std::string("7 -1\0", 5)},
    {"HeaderSplitInsideTheCode",
     {"[7", "0,1]z"},
     {"E msg parser error: missing ',', broken msg([7)", kWaitE, kNotEmpty,
      "E undefined code(70)|z"},
     std::string("70 -1\0", 6)},
};

void PrintTo(const FramingRow& row, std::ostream* os) {
    *os << row.name;
}

class FramingTest : public ::testing::TestWithParam<FramingRow> {};

TEST_P(FramingTest, ArrivalsGiveTheseDispatchesAndLines) {
    orvtest::TempRoot root;
    orvtest::LogCapture log;
    orvtest::setDebug(true);
    OrvMsgHandler handler;
    Wire wire;
    log.clear();
    for (const auto& a : GetParam().arrivals) feed(handler, wire, a);
    EXPECT_EQ(GetParam().lines, handlerLines(log));
    EXPECT_EQ(GetParam().replies, wire.replies());
}

INSTANTIATE_TEST_SUITE_P(Rows, FramingTest, ::testing::ValuesIn(kFraming),
                         [](const ::testing::TestParamInfo<FramingRow>& info) {
                             return std::string(info.param.name);
                         });

TEST(FramingTrace, DebugLinesOfOnePass) {
    orvtest::TempRoot root;
    orvtest::LogCapture log;
    orvtest::setDebug(true);
    OrvMsgHandler handler;
    Wire wire;
    log.clear();
    feed(handler, wire, "[7,1]ab");
    auto texts = log.texts("OrvMsgHandler");
    ASSERT_GE(texts.size(), 3u);
    EXPECT_EQ("consume(msg=[7,1]ab), msgBuf=[7,1]ab", texts[0]);
    EXPECT_EQ("msgBuf=[7,1]ab", texts[1]);
    EXPECT_EQ("matchCnt=3, code=7, payload_len=1, remainStr=ab", texts[2]);
}

TEST(BinStr2UIntStr, ConvertsBitStringsModulo32) {
    struct Row {
        std::string bin;
        bool ok;
        std::string out;
    };
    const Row rows[] = {
        {"101", true, "5"},
        {"", true, "0"},
        {"000", true, "0"},
        {"0110", true, "6"},
        {std::string(32, '1'), true, "-1"},
        {"1" + std::string(31, '0'), true, "-2147483648"},
        {"1" + std::string(32, '0'), true, "1"},  // bit 32 wraps to bit 0
        {"12", false, "unchanged"},
        {"1 1", false, "unchanged"},
    };
    for (const Row& r : rows) {
        std::string bin = r.bin, out = "unchanged";
        EXPECT_EQ(r.ok, OrvMsgHandler::binStr2UIntStr(bin, out)) << r.bin;
        EXPECT_EQ(r.out, out) << r.bin;
    }
}

TEST(Registries, InsertKeepsTheFirstEntry) {
    orvtest::TempRoot root;
    OrvMsgHandler h;
    EXPECT_STREQ("", h.getPNameByPid(5));
    h.addPidPNamePair(5, "first");
    h.addPidPNamePair(5, "second");
    EXPECT_STREQ("first", h.getPNameByPid(5));
}

// The whole code table against a real context and action manager, as one conversation.
TEST(CodeTable, ConversationWithContextAndPolicy) {
    orvtest::ScenarioEnv env;
    ASSERT_TRUE(env.ready());
    OrvContext ctx;
    ctx.mActionManager = env.manager();
    OrvMsgHandler h;
    h.setContext(&ctx);
    h.setActionManager(env.manager());
    Wire wire;

    struct Step {
        int code;
        std::string payload;
        const char* reply;               // nullptr: none expected
        std::vector<std::string> lines;  // must appear, in order
        const char* state;               // nullptr: not checked
        int glTid = -2;                  // -2: not checked
    };
    const Step steps[] = {
        {1, "100;com.a", nullptr, {"D PROCESS_START(1)|100;com.a"}, "reset"},
        {1, "100;com.other", nullptr, {}, nullptr},
        {41, "100;7", nullptr, {"D GLTHREAD_ATTACH(41)|100;7"}, "reset"},
        {41, "100;8", nullptr, {}, nullptr},
        {3, "100;com.a;act;x", nullptr, {"D ACTIVITY_START(3)|100;com.a;act;x"}, "start", 7},
        {4, "100;com.a", nullptr, {"D ACTIVITY_DISPLAYED(4)|100;com.a"}, "run"},
        {101,
         "100",
         "101 true",
         {"D DALVIK_LARGE_HEAP(101)|100", "D DALVIK_HEAP_UTILIZATION(101)|100", "D large_heap=true"},
         nullptr},
        {102,
         "100",
         "102 0.75",
         {"D DALVIK_HEAP_UTILIZATION(102)|100", "D heap_utilization=0.75"},
         nullptr},
        {103,
         "100",
         "103 1",
         {"D HARDWARE_ACCELERATION(103)|100", "D hardware_acceleration=1"},
         nullptr},
        {101, "999", "101 false", {}, nullptr},
        {102, "999", "102 -1", {}, nullptr},
        {103, "", "103 -1", {}, nullptr},
        {104,
         "com.a",
         "104 6",
         {"D DISABLE_THERMAL(104)|com.a", "D param=0110, len=4 => thermal_mask=6"},
         nullptr},
        {104, "com.b", "104 1", {}, nullptr},
        {104, "", "104 0", {"D param=000, len=3 => thermal_mask=0"}, nullptr},
        {400,
         "0;com.a",
         "400 5",
         {"D CONFIGURATION_QUERY(400)|0;com.a", "D CONFIGURATION_QUERY_BY_NAME(400)|0;com.a",
          "D param=101, len=3 => event_mask=5"},
         nullptr},
        {400, "1;100", "400 5", {"D CONFIGURATION_QUERY_BY_PID(400)|1;100"}, nullptr},
        {400, "0;", "400 0", {}, nullptr},
        {400, "0;com.b", "400 0", {}, nullptr},  // "1x1" is no bit string
        {400, "1;999", "400 0", {}, nullptr},
        {400, "2;com.a", nullptr, {"E Unknown CONFIGURATION_QUERY type(2)"}, nullptr},
        {7, "what", "7 -1", {"E undefined code(7)|what"}, nullptr},
        {34, "100;2", nullptr, {"D VIEW_GESTURE_TAP(34)|100"}, "gesture_tap"},
        {34, "100;6", nullptr, {"W Unknown GESTURE type (6)"}, "gesture_tap"},
        {34, "100;-1", nullptr, {"W Unknown GESTURE type (-1)"}, "gesture_tap"},
        {500, "", nullptr, {"D TIMEOUT(500)"}, "run"},
        {34, "100;0", nullptr, {"D VIEW_GESTURE_DOWN(34)|100"}, "gesture_down"},
        {34, "100;1", nullptr, {"D VIEW_GESTURE_PRESS(34)|100"}, "gesture_press"},
        {34, "100;3", nullptr, {"D VIEW_GESTURE_SCROLL(34)|100"}, "gesture_scroll"},
        {34, "100;4", nullptr, {"D VIEW_GESTURE_FLING(34)|100"}, "gesture_fling"},
        {34, "100;5", nullptr, {"D VIEW_GESTURE_LONG_PRESS(34)|100"}, "gesture_long_press"},
        {500, "", nullptr, {}, "run"},
        {33, "100;1", nullptr, {"D LIST_SCROLL(33)|100"}, "listview_scroll"},
        {33, "100;2", nullptr, {"D LIST_FLING(33)|100"}, "listview_fling"},
        {33, "100;0", nullptr, {"D LIST_IDLE(33)|100"}, "run"},
        {33, "100;3", nullptr, {"W Unknown LIST_VIEW type (3)"}, "run"},
        {35, "100;0", nullptr, {"D SCALE_START(35)|100"}, "scale"},
        {35, "100;1", nullptr, {"D SCALE_CONTINUE(35)|100"}, "scale"},
        {35, "100;2", nullptr, {"D SCALE_END(35)|100"}, "run"},
        {35, "100;9", nullptr, {"W Unknown SCALE type (9)"}, "run"},
        {21, "", nullptr, {"D ROTATE_START(21)"}, "rotate"},
        {22, "", nullptr, {"D ROTATE_ANIMATION_START(22)"}, "rotate"},
        {23, "", nullptr, {"D ROTATE_ANIMATION_END(23)"}, "run"},
        {42, "100;7", nullptr, {"D GLTHREAD_DETTACH(42)|100;7"}, "run"},
        {3, "100;com.a;a;b", nullptr, {}, "run", -1},
        {5, "100;com.a;300;com.b", nullptr, {"D ACTIVITY_TRANSITION(5)|100;com.a;300;com.b"}, "run"},
        {2, "100;com.a", nullptr, {"D PROCESS_DIE(2)|100;com.a"}, nullptr},
        {101, "100", "101 false", {}, nullptr},
        {41,
         "100;5",
         nullptr,
         {"E cannot map pid to pname, drop event GLTHREAD_ATTACH 100;5"},
         nullptr},
        {3, "-1;com.a;x;y", nullptr, {}, "launch"},
        {302, "", nullptr, {"D GOING_TO_SLEEP(302)"}, "reset"},
        {303, "", nullptr, {"D WAKING_UP(303)"}, "reset"},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(frame(s.code, s.payload));
        env.log().clear();
        feed(h, wire, frame(s.code, s.payload));
        EXPECT_EQ(s.reply ? std::string(s.reply) + '\0' : std::string(), wire.replies());
        auto lines = handlerLines(env.log());
        size_t at = 0;
        for (const auto& want : s.lines) {
            while (at < lines.size() && lines[at] != want) ++at;
            EXPECT_LT(at, lines.size()) << "missing: " << want;
        }
        if (s.state) {
            EXPECT_STREQ(s.state, ctx.mState->getStateNameStr());
        }
        if (s.glTid != -2) {
            EXPECT_EQ(s.glTid, ctx.mGLTid);
        }
    }
}

TEST(CodeTable, ViewEventsNeedAContextEvenToLog) {
    orvtest::TempRoot root;
    orvtest::LogCapture log;
    orvtest::setDebug(true);
    OrvMsgHandler h;
    Wire wire;
    log.clear();
    feed(h, wire, frame(34, "1;9") + frame(33, "1;1") + frame(35, "1;0") + frame(21, ""));
    EXPECT_EQ((std::vector<std::string>{"D ROTATE_START(21)"}), handlerLines(log));
}

}  // namespace
