// End-to-end benchmark over the real programs: orvd against a minimal baseline doing the same
// hop, measured in alternating blocks of one run so that both see the same machine.
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "E2eClock.h"
#include "E2eEffect.h"
#include "E2ePolicies.h"
#include "E2eServer.h"
#include "protocol/include/orv/protocol.h"
#include "tools/codec/OrvPolicyEncoder.h"

namespace {

struct Options {
    bool quick = false;
    std::string only;  // "events" or "startup": one half of the run
    std::string bin, example;
};

struct Sizes {
    int latencyBlocks, latencyEvents;  // events per block
    int pipeBlocks, pipeEvents;
    int frameBlocks, frameCount;
    int startRounds;
    int rssEvents;
};

// Many short blocks: both sides see the same moments of a busy machine.
const Sizes kFull = {60, 100, 40, 5000, 40, 50000, 20, 100000};
const Sizes kQuick = {2, 50, 2, 500, 2, 2000, 2, 2000};

const char kApp[] = "com.bench.app";
const int kPid = 1234;

using orv::frame;

std::string listView(orv::ListView type) {
    std::string payload;
    orv::appendFields(payload, kPid, type);
    return frame(orv::LIST_VIEW, payload);
}

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

std::string makeRoot(const std::string& base, const std::string& name, const std::string& policy) {
    std::string root = base + "/" + name;
    mkdir(root.c_str(), 0755);
    mkdir((root + "/data").c_str(), 0755);
    if (!policy.empty()) writeFile(root + "/data/orvpolicy", policy);
    return root;
}

struct Stats {
    std::vector<double> v;
    double pct(double p) {
        if (v.empty()) return 0;
        std::sort(v.begin(), v.end());
        size_t i = static_cast<size_t>(p / 100.0 * static_cast<double>(v.size() - 1) + 0.5);
        return v[std::min(i, v.size() - 1)];
    }
};

void printRow(const char* what, const char* unit, Stats& orvd, Stats& base) {
    double o50 = orvd.pct(50), o90 = orvd.pct(90), o99 = orvd.pct(99);
    double b50 = base.pct(50), b90 = base.pct(90), b99 = base.pct(99);
    printf("%-34s %-5s orvd %9.2f %9.2f %9.2f | base %9.2f %9.2f %9.2f | ratio p50 %.2f p99 %.2f\n",
           what, unit, o50, o90, o99, b50, b90, b99, b50 > 0 ? o50 / b50 : 0,
           b99 > 0 ? o99 / b99 : 0);
}

// A long-running server with its effect file and the count of events sent to it.
struct Subject {
    std::unique_ptr<E2eServer> server;
    std::unique_ptr<E2eEffect> effect;
    long events = 0;
    long rssAtMark = -1;  // kB, taken when `events` first reaches the size's rssEvents
    long eventsAtMark = 0;
};

bool prepare(Subject& s, bool isOrvd) {
    const std::string effect = s.server->root() + "/effect";
    writeFile(effect, "0");
    if (s.server->start() < 0 || !s.server->connectClient()) return false;
    s.effect.reset(new E2eEffect(effect));
    std::string p = std::to_string(kPid) + ";" + kApp;
    // The tracked application enters run; the baseline only needs its first write.
    std::string setup = isOrvd ? frame(orv::PROCESS_START, p) +
                                     frame(orv::ACTIVITY_START, p + ";act;x") +
                                     frame(orv::ACTIVITY_DISPLAYED, p)
                               : listView(orv::ListView::Idle);
    return s.server->sendAll(setup) && s.effect->waitFor('1');
}

// CPU time of the server over a measurement, summed over its blocks.
struct CpuTotal {
    long long ns = 0;
    long events = 0;
    double perEventUs() const { return events ? ns / 1000.0 / static_cast<double>(events) : 0; }
};

// One side's figures of one measurement.
struct Side {
    Stats stats;
    CpuTotal cpu;
};

void printCpu(const char* what, const Side sides[2]) {
    double o = sides[0].cpu.perEventUs(), b = sides[1].cpu.perEventUs();
    printf("%-34s us    orvd %9.2f | base %9.2f | ratio %.2f\n", what, o, b, b > 0 ? o / b : 0);
}

long gRssMark = 0;

// Memory once the count of events first passes the mark, with every event executed.
bool markRss(Subject& s) {
    if (s.rssAtMark < 0 && s.events >= gRssMark) {
        s.rssAtMark = s.server->rssKb();
        s.eventsAtMark = s.events;
    }
    return true;
}

bool latencyBlock(Subject& s, int events, Side& out) {
    long long c0 = s.server->cpuNs();
    for (int i = 0; i < events; ++i) {
        const bool scroll = i % 2 == 0;  // scroll, then idle back to run
        std::string f = listView(scroll ? orv::ListView::Scroll : orv::ListView::Idle);
        long long t0 = e2eNowNs();
        if (!s.server->sendAll(f) || !s.effect->waitFor(scroll ? '2' : '1')) return false;
        out.stats.v.push_back(static_cast<double>(e2eNowNs() - t0) / 1000.0);
    }
    out.cpu.ns += s.server->cpuNs() - c0;
    out.cpu.events += events;
    s.events += events;
    return markRss(s);
}

// `events` state changes written back to back, ended by a fling whose write marks the end.
bool pipelineBlock(Subject& s, int events, Side& out) {
    std::string batch;
    for (int i = 0; i < events; ++i)
        batch += listView(i % 2 == 0 ? orv::ListView::Scroll : orv::ListView::Idle);
    batch += listView(orv::ListView::Fling);
    long long c0 = s.server->cpuNs(), t0 = e2eNowNs();
    if (!s.server->sendAll(batch) || !s.effect->waitFor('3')) return false;
    long long t = e2eNowNs() - t0;
    out.cpu.ns += s.server->cpuNs() - c0;
    out.cpu.events += events + 1;
    out.stats.v.push_back((events + 1) * 1e6 / static_cast<double>(t));
    s.events += events + 2;
    return s.server->sendAll(listView(orv::ListView::Idle)) && s.effect->waitFor('1') && markRss(s);
}

// Frames that change nothing: a process start for a pid that is already known.
bool framingBlock(Subject& s, int count, Side& out) {
    std::string one = frame(orv::PROCESS_START, std::to_string(kPid) + ";" + kApp), batch;
    batch.reserve(one.size() * static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) batch += one;
    long long c0 = s.server->cpuNs(), t0 = e2eNowNs();
    if (!s.server->sendAll(batch) || !s.server->sync()) return false;
    out.stats.v.push_back(count * 1e6 / static_cast<double>(e2eNowNs() - t0));
    out.cpu.ns += s.server->cpuNs() - c0;
    out.cpu.events += count;
    return true;
}

void printLoad(const char* when) {
    std::ifstream in("/proc/loadavg");
    std::string load;
    std::getline(in, load);
    printf("load average (%s): %s\n", when, load.c_str());
}

std::string selfDir() {
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0) return ".";
    std::string path(buf, static_cast<size_t>(n));
    return path.substr(0, path.rfind('/'));
}

int runEvents(const Options& opt, const Sizes& z, const std::string& tmp) {
    std::string orvdRoot = makeRoot(tmp, "orvd", "");
    writeFile(orvdRoot + "/data/orvpolicy", e2eEventPolicy(orvdRoot + "/effect"));
    std::string baseRoot = makeRoot(tmp, "base", "");
    Subject subj[2];
    subj[0].server.reset(new E2eServer("orvd", {opt.bin + "/orvd"}, orvdRoot));
    subj[1].server.reset(new E2eServer(
        "baseline", {opt.bin + "/orv_bench_baseline", baseRoot + "/effect"}, baseRoot));
    if (!prepare(subj[0], true) || !prepare(subj[1], false)) return 1;
    long rssStart[2] = {subj[0].server->rssKb(), subj[1].server->rssKb()};
    gRssMark = z.rssEvents;

    Side lat[2], pipe[2], frames[2];
    for (int b = 0; b < z.latencyBlocks; ++b)
        for (int k = 0; k < 2; ++k)
            if (!latencyBlock(subj[(b + k) % 2], z.latencyEvents, lat[(b + k) % 2])) return 1;
    printRow("event -> effect latency", "us", lat[0].stats, lat[1].stats);
    printCpu("CPU per event (latency run)", lat);

    for (int b = 0; b < z.pipeBlocks; ++b)
        for (int k = 0; k < 2; ++k)
            if (!pipelineBlock(subj[(b + k) % 2], z.pipeEvents, pipe[(b + k) % 2])) return 1;
    printRow("pipelined state changes", "k/s", pipe[0].stats, pipe[1].stats);
    printCpu("CPU per pipelined event", pipe);

    for (int b = 0; b < z.frameBlocks; ++b)
        for (int k = 0; k < 2; ++k)
            if (!framingBlock(subj[(b + k) % 2], z.frameCount, frames[(b + k) % 2])) return 1;
    printRow("framing + dispatch (no change)", "k/s", frames[0].stats, frames[1].stats);
    printCpu("CPU per frame", frames);

    // Top up to the event count at which memory is compared.
    for (Subject& s : subj) {
        Side ignored;
        while (s.rssAtMark < 0)
            if (!pipelineBlock(s, 5000, ignored)) return 1;
    }
    printf(
        "%-34s orvd %ld kB after start, %ld kB after %ld events | base %ld kB, %ld kB after %ld\n",
        "RSS", rssStart[0], subj[0].rssAtMark, subj[0].eventsAtMark, rssStart[1], subj[1].rssAtMark,
        subj[1].eventsAtMark);
    return 0;
}

int runStartups(const Options& opt, const Sizes& z, const std::string& tmp) {
    std::string sized = e2eSizedPolicy(64 * 1024), protectedText, error;
    OrvProtectOptions popt;
    popt.rngSeed = 1;
    if (!orvProtectPolicy(sized, popt, protectedText, &error)) {
        fprintf(stderr, "bench: cannot protect the policy: %s\n", error.c_str());
        return 1;
    }
    std::string example;
    std::ifstream in(opt.example);
    example.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());

    const std::string orvd = opt.bin + "/orvd";
    std::string baseRoot = makeRoot(tmp, "start-base", "");
    E2eServer servers[] = {
        {"yardstick", {opt.bin + "/orv_bench_baseline", baseRoot + "/effect"}, baseRoot},
        {"example", {orvd}, makeRoot(tmp, "start-example", example)},
        {"1000 apps", {orvd}, makeRoot(tmp, "start-1000", e2eManyAppsPolicy(1000))},
        {"64 KiB plain", {orvd}, makeRoot(tmp, "start-plain", sized)},
        {"64 KiB protected", {orvd}, makeRoot(tmp, "start-protected", protectedText)},
    };
    const int n = sizeof(servers) / sizeof(servers[0]);
    Stats t[n];
    for (int r = 0; r < z.startRounds; ++r) {
        for (int k = 0; k < n; ++k) {
            E2eServer& s = servers[(r + k) % n];
            long long ns = s.start();
            s.stop();
            if (ns < 0) return 1;
            t[(r + k) % n].v.push_back(static_cast<double>(ns) / 1000.0);
        }
    }
    printRow("start-up, example policy", "us", t[1], t[0]);
    printRow("start-up, 1,000 applications", "us", t[2], t[0]);
    printRow("start-up, 64 KiB protected/plain", "us", t[4], t[3]);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    opt.bin = selfDir();
    opt.example = ORV_SOURCE_DIR "/examples/tablet-policy.json";
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--quick") {
            opt.quick = true;
        } else if (a == "--only" && i + 1 < argc) {
            opt.only = argv[++i];
        } else if (a == "--bin" && i + 1 < argc) {
            opt.bin = argv[++i];
        } else if (a == "--example" && i + 1 < argc) {
            opt.example = argv[++i];
        } else {
            fprintf(stderr,
                    "usage: orv_bench_e2e [--quick] [--only events|startup] [--bin DIR] [--example "
                    "POLICY]\n");
            return 2;
        }
    }
    char tmpl[] = "/tmp/orv-e2e-XXXXXX";
    if (!mkdtemp(tmpl)) return 1;
    const Sizes& z = opt.quick ? kQuick : kFull;
    printf("orvd end-to-end benchmark%s: %ld CPUs, columns p50 p90 p99\n",
           opt.quick ? " (quick)" : "", sysconf(_SC_NPROCESSORS_ONLN));
    printLoad("before");
    int rc = opt.only == "startup" ? 0 : runEvents(opt, z, tmpl);
    if (rc == 0 && opt.only != "events") rc = runStartups(opt, z, tmpl);
    printLoad("after");
    std::string cleanup = std::string("rm -rf ") + tmpl;
    if (system(cleanup.c_str()) != 0) rc = rc ? rc : 1;
    return rc;
}
