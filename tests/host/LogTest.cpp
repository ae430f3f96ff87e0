#include <android/log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <orvhost/host.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/OrvTestSupport.h"

namespace {

// Points fd 2 at a file for the life of the object.
class StderrCapture {
  public:
    StderrCapture() {
        char tmpl[] = "/tmp/orvlog.XXXXXX";
        mFd = mkstemp(tmpl);
        mPath = tmpl;
        mSaved = dup(STDERR_FILENO);
        dup2(mFd, STDERR_FILENO);
    }
    ~StderrCapture() {
        restore();
        close(mFd);
        unlink(mPath.c_str());
    }
    void restore() {
        if (mSaved < 0) return;
        dup2(mSaved, STDERR_FILENO);
        close(mSaved);
        mSaved = -1;
    }
    std::string text() const { return orvtest::readFile(mPath); }
    std::vector<std::string> lines() const {
        std::vector<std::string> out;
        std::string all = text(), line;
        for (char c : all) {
            if (c == '\n') {
                out.push_back(line);
                line.clear();
            } else {
                line += c;
            }
        }
        EXPECT_EQ("", line) << "output must end with a line feed";
        return out;
    }

  private:
    int mFd = -1;
    int mSaved = -1;
    std::string mPath;
};

const std::regex kLine(
    R"(^(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)\.(\d{3}) ( *\d+) ( *\d+) ([A-Z?]) (.*?) *: (.*)$)");

struct Parsed {
    std::string pidField, tidField, level, tag, text;
};

Parsed parse(const std::string& line) {
    std::smatch m;
    EXPECT_TRUE(std::regex_match(line, m, kLine)) << line;
    if (m.empty()) return {};
    return {m[7], m[8], m[9], m[10], m[11]};
}

TEST(Log, ThreadtimeHeader) {
    StderrCapture cap;
    __android_log_print(ANDROID_LOG_INFO, "OrvMain", "hello %d %s", 42, "world");
    cap.restore();
    auto lines = cap.lines();
    ASSERT_EQ(1u, lines.size());
    const std::string& l = lines[0];
    Parsed p = parse(l);
    EXPECT_EQ(5u, p.pidField.size());
    EXPECT_EQ(5u, p.tidField.size());
    EXPECT_EQ(getpid(), atoi(p.pidField.c_str()));
    EXPECT_EQ("I", p.level);
    EXPECT_EQ("hello 42 world", p.text);
    // "%-8s: " pads the tag to 8 columns.
    EXPECT_NE(std::string::npos, l.find(" I OrvMain : hello 42 world"));
}

TEST(Log, LevelLettersAndTags) {
    struct Case {
        int prio;
        const char* tag;
        const char* expectTail;
    } cases[] = {
        {ANDROID_LOG_VERBOSE, "T", " V T       : x"},
        {ANDROID_LOG_DEBUG, "T", " D T       : x"},
        {ANDROID_LOG_INFO, "T", " I T       : x"},
        {ANDROID_LOG_WARN, "T", " W T       : x"},
        {ANDROID_LOG_ERROR, "T", " E T       : x"},
        {ANDROID_LOG_FATAL, "T", " F T       : x"},
        {ANDROID_LOG_ERROR, nullptr, " E         : x"},
        {ANDROID_LOG_ERROR, "ExactlyE", " E ExactlyE: x"},
        {ANDROID_LOG_ERROR, "SocketListener", " E SocketListener: x"},
    };
    for (const auto& c : cases) {
        StderrCapture cap;
        __android_log_write(c.prio, c.tag, "x");
        cap.restore();
        auto lines = cap.lines();
        ASSERT_EQ(1u, lines.size());
        const std::string& l = lines[0];
        std::string tail = c.expectTail;
        ASSERT_GE(l.size(), tail.size());
        EXPECT_EQ(tail, l.substr(l.size() - tail.size())) << l;
        parse(l);
    }
}

TEST(Log, MultiLineTexts) {
    struct Case {
        const char* text;
        std::vector<std::string> lines;
    } cases[] = {
        {"one", {"one"}},
        {"one\n", {"one"}},
        {"one\ntwo", {"one", "two"}},
        {"one\ntwo\n", {"one", "two"}},
        {"done\nconnecting socket...", {"done", "connecting socket..."}},
        {"a\n\nb", {"a", "", "b"}},
        {"a\n\n", {"a", ""}},
        {"\n", {""}},
        {"", {""}},
    };
    for (const auto& c : cases) {
        StderrCapture cap;
        __android_log_print(ANDROID_LOG_WARN, "Multi", "%s", c.text);
        cap.restore();
        auto lines = cap.lines();
        ASSERT_EQ(c.lines.size(), lines.size()) << "text: " << c.text;
        std::string header;
        for (size_t i = 0; i < lines.size(); ++i) {
            EXPECT_EQ(c.lines[i], parse(lines[i]).text);
            std::string h = lines[i].substr(0, lines[i].size() - c.lines[i].size());
            if (i == 0) header = h;
            EXPECT_EQ(header, h) << "every line carries the record's header";
        }
    }
}

TEST(Log, LongTextIsNotCut) {
    std::string big(5000, 'q');
    StderrCapture cap;
    __android_log_print(ANDROID_LOG_INFO, "Big", "%s|end", big.c_str());
    cap.restore();
    auto lines = cap.lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(big + "|end", parse(lines[0]).text);
}

TEST(Log, HookSeesWholeTextOnceAndEchoSwitch) {
    StderrCapture cap;
    {
        orvtest::LogCapture quiet(false);
        __android_log_print(ANDROID_LOG_ERROR, "OrvTimer", "socket connect fail (ret=%d)\n", -1);
        auto recs = quiet.records();
        ASSERT_EQ(1u, recs.size());
        EXPECT_EQ(ANDROID_LOG_ERROR, recs[0].prio);
        EXPECT_EQ("OrvTimer", recs[0].tag);
        EXPECT_EQ("socket connect fail (ret=-1)\n", recs[0].text);
    }
    EXPECT_EQ("", cap.text()) << "echo=false keeps records off stderr";
    {
        orvtest::LogCapture loud(true);
        __android_log_write(ANDROID_LOG_INFO, nullptr, "echoed");
        EXPECT_TRUE(loud.has("echoed"));
        EXPECT_EQ("", loud.records()[0].tag);
    }
    __android_log_write(ANDROID_LOG_INFO, "T", "after");
    cap.restore();
    auto lines = cap.lines();
    ASSERT_EQ(2u, lines.size()) << "a null hook restores plain stderr";
    EXPECT_EQ("echoed", parse(lines[0]).text);
    EXPECT_EQ("after", parse(lines[1]).text);
}

TEST(Log, ErrnoIsPreserved) {
    orvtest::LogCapture quiet(false);
    errno = ENOENT;
    __android_log_print(ANDROID_LOG_INFO, "T", "%s", std::string(3000, 'e').c_str());
    EXPECT_EQ(ENOENT, errno);
}

// Concurrent multi-line records: each record's lines stay together and nothing is torn.
TEST(Log, ConcurrentRecordsDoNotInterleave) {
    constexpr int kThreads = 4, kRecords = 200;
    StderrCapture cap;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kRecords; ++i)
                __android_log_print(ANDROID_LOG_DEBUG, "Conc", "t%d r%d first\nt%d r%d second", t,
                                    i, t, i);
        });
    }
    for (auto& th : threads) th.join();
    cap.restore();
    auto lines = cap.lines();
    ASSERT_EQ(static_cast<size_t>(kThreads * kRecords * 2), lines.size());
    for (size_t i = 0; i < lines.size(); i += 2) {
        std::string first = parse(lines[i]).text, second = parse(lines[i + 1]).text;
        ASSERT_EQ(" first", first.substr(first.size() - 6));
        EXPECT_EQ(first.substr(0, first.size() - 6) + " second", second);
        EXPECT_EQ(parse(lines[i]).tidField, parse(lines[i + 1]).tidField);
    }
}

TEST(HostPath, ResolvesUnderRoot) {
    struct Case {
        const char* root;  // nullptr: unset
        const char* device;
        const char* expect;
    } cases[] = {
        {nullptr, "/data/orvpolicy", "/data/orvpolicy"},
        {"", "/data/orvpolicy", "/data/orvpolicy"},
        {"/", "/data/orvpolicy", "/data/orvpolicy"},
        {"/tmp/r", "/data/orvpolicy", "/tmp/r/data/orvpolicy"},
        {"/tmp/r/", "/data/orvpolicy", "/tmp/r/data/orvpolicy"},
        {"/tmp/r//", "/dev/socket/", "/tmp/r/dev/socket/"},
        {"rel", "/system/etc/orvpolicy", "rel/system/etc/orvpolicy"},
    };
    for (const auto& c : cases) {
        if (c.root)
            setenv("ORV_ROOT", c.root, 1);
        else
            unsetenv("ORV_ROOT");
        EXPECT_EQ(c.expect, orvhost_path(c.device)) << (c.root ? c.root : "(unset)");
    }
    unsetenv("ORV_ROOT");
}

}  // namespace
