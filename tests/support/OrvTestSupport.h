#pragma once
// Shared test fixtures: a throw-away ORV_ROOT and a capture of log records through the host hook.
#include <orvhost/host.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace orvtest {

// How long a test waits for what should happen at once: enough for a machine many times slower
// than usual, so that only a fault ever runs it out.
constexpr int kWaitMs = 20000;

// Polls a condition that another thread or process brings about, up to `ms`.
inline bool eventually(const std::function<bool()>& done, int ms = kWaitMs) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (std::chrono::steady_clock::now() < end) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return done();
}

// Creates a fresh directory, points ORV_ROOT at it and removes it again.
class TempRoot {
  public:
    TempRoot() {
        char tmpl[] = "/tmp/orvtest.XXXXXX";
        const char* dir = mkdtemp(tmpl);
        mPath = dir ? dir : "";
        setenv("ORV_ROOT", mPath.c_str(), 1);
        std::error_code ec;
        std::filesystem::create_directories(mPath + "/data", ec);
        std::filesystem::create_directories(mPath + "/system/etc", ec);
        std::filesystem::create_directories(mPath + "/dev", ec);
    }
    ~TempRoot() {
        std::error_code ec;
        if (!mPath.empty()) std::filesystem::remove_all(mPath, ec);
    }
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;

    const std::string& path() const { return mPath; }
    std::string operator/(const std::string& rel) const { return mPath + "/" + rel; }

    // Writes `content` to root-relative `rel`, creating parent directories.
    std::string write(const std::string& rel, const std::string& content) const {
        std::string full = mPath + "/" + rel;
        std::error_code ec;
        std::filesystem::create_directories(std::filesystem::path(full).parent_path(), ec);
        std::ofstream(full, std::ios::binary) << content;
        return full;
    }

  private:
    std::string mPath;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

struct LogRecord {
    int prio;
    std::string tag;
    std::string text;
};

// Records every log record while alive. `echo` keeps them on stderr as well.
class LogCapture {
  public:
    explicit LogCapture(bool echo = false) { orvhost_set_log_hook(&LogCapture::hook, this, echo); }
    ~LogCapture() { orvhost_set_log_hook(nullptr, nullptr, true); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogRecord> records() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mRecords;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mLock);
        mRecords.clear();
    }
    // Number of records whose text equals `text` (and whose tag equals `tag` when given).
    int count(const std::string& text, const char* tag = nullptr) const {
        return countIf([&](const LogRecord& r) { return r.text == text && tagIs(r, tag); });
    }
    int countContaining(const std::string& part, const char* tag = nullptr) const {
        return countIf([&](const LogRecord& r) {
            return r.text.find(part) != std::string::npos && tagIs(r, tag);
        });
    }
    bool has(const std::string& text, const char* tag = nullptr) const {
        return count(text, tag) > 0;
    }
    // Texts of one tag, in order.
    std::vector<std::string> texts(const char* tag = nullptr) const {
        std::vector<std::string> out;
        for (const auto& r : records())
            if (tagIs(r, tag)) out.push_back(r.text);
        return out;
    }
    // Waits until at least `n` records have text `text`; false on time-out.
    bool waitFor(const std::string& text, int n = 1, int timeoutMs = kWaitMs) const {
        return eventually([&] { return count(text) >= n; }, timeoutMs);
    }

  private:
    static bool tagIs(const LogRecord& r, const char* tag) { return !tag || r.tag == tag; }
    int countIf(const std::function<bool(const LogRecord&)>& pred) const {
        int n = 0;
        for (const auto& r : records())
            if (pred(r)) ++n;
        return n;
    }
    static void hook(int prio, const char* tag, const char* text, void* cookie) {
        auto* self = static_cast<LogCapture*>(cookie);
        std::lock_guard<std::mutex> lock(self->mLock);
        self->mRecords.push_back({prio, tag ? tag : "", text ? text : ""});
    }

    mutable std::mutex mLock;
    std::vector<LogRecord> mRecords;
};

}  // namespace orvtest
