// End-to-end benchmark over the real programs: orvd against a minimal baseline doing the same
// hop, measured in alternating blocks of one run so that both see the same machine.
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
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
    std::string phases = "quiet,loaded";
};

struct Sizes {
    int runs;  // blocks per subject, placement and measurement; medians are taken over them
    int latencyEvents, pipeEvents, frameCount;
    int startRounds;
};

const Sizes kFull = {9, 100, 5000, 20000, 20};
const Sizes kQuick = {1, 20, 300, 1000, 2};

// Where the client, the daemon's listener and its worker run. On two CPUs these are all the
// placements there are, up to swapping the CPUs; more CPUs are left unused.
struct Placement {
    const char* name;
    int client, listener, worker;
};
const Placement kPlacements[] = {
    {"client+listener+worker", 0, 0, 0},
    {"client | listener+worker", 0, 1, 1},
    {"client+worker | listener", 0, 1, 0},
    {"client+listener | worker", 0, 0, 1},
};

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

// A long-running server with its effect file.
struct Subject {
    std::unique_ptr<E2eServer> server;
    std::unique_ptr<E2eEffect> effect;
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

// One subject's figures of one measurement in one placement: a value per block (its median is
// reported) and the server's CPU time and context switches over all the blocks.
struct Figures {
    Stats blocks;
    long long cpuNs = 0, switches = 0;
    long events = 0;
    double median() { return blocks.pct(50); }
    double cpuUs() const { return events ? cpuNs / 1000.0 / static_cast<double>(events) : 0; }
    double switchesPer() const {
        return events ? static_cast<double>(switches) / static_cast<double>(events) : 0;
    }
};

// Counts the server's CPU and switches around one block of `events` events.
class Meter {
  public:
    Meter(Subject& s, Figures& f)
        : mS(s), mF(f), mCpu(s.server->cpuNs()), mSw(s.server->switches()) {}
    void done(long events) {
        mF.cpuNs += mS.server->cpuNs() - mCpu;
        mF.switches += mS.server->switches() - mSw;
        mF.events += events;
    }

  private:
    Subject& mS;
    Figures& mF;
    long long mCpu, mSw;
};

// One state change at a time, each waited for at the effect file: the block's median latency.
bool latencyBlock(Subject& s, int events, Figures& out) {
    Stats lat;
    Meter meter(s, out);
    for (int i = 0; i < events; ++i) {
        const bool scroll = i % 2 == 0;  // scroll, then idle back to run
        std::string f = listView(scroll ? orv::ListView::Scroll : orv::ListView::Idle);
        long long t0 = e2eNowNs();
        if (!s.server->sendAll(f) || !s.effect->waitFor(scroll ? '2' : '1')) return false;
        lat.v.push_back(static_cast<double>(e2eNowNs() - t0) / 1000.0);
    }
    meter.done(events);
    out.blocks.v.push_back(lat.pct(50));
    return true;
}

// `events` state changes written back to back, ended by a fling whose write marks the end.
bool pipelineBlock(Subject& s, int events, Figures& out) {
    std::string batch;
    for (int i = 0; i < events; ++i)
        batch += listView(i % 2 == 0 ? orv::ListView::Scroll : orv::ListView::Idle);
    batch += listView(orv::ListView::Fling);
    Meter meter(s, out);
    long long t0 = e2eNowNs();
    if (!s.server->sendAll(batch) || !s.effect->waitFor('3')) return false;
    long long t = e2eNowNs() - t0;
    meter.done(events + 1);
    out.blocks.v.push_back((events + 1) * 1e6 / static_cast<double>(t));
    return s.server->sendAll(listView(orv::ListView::Idle)) && s.effect->waitFor('1');
}

// Frames that change nothing: a process start for a pid that is already known.
bool framingBlock(Subject& s, int count, Figures& out) {
    std::string one = frame(orv::PROCESS_START, std::to_string(kPid) + ";" + kApp), batch;
    batch.reserve(one.size() * static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) batch += one;
    Meter meter(s, out);
    long long t0 = e2eNowNs();
    if (!s.server->sendAll(batch) || !s.server->sync()) return false;
    out.blocks.v.push_back(count * 1e6 / static_cast<double>(e2eNowNs() - t0));
    meter.done(count);
    return true;
}

std::string loadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string load;
    std::getline(in, load);
    return load;
}

std::string selfDir() {
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0) return ".";
    std::string path(buf, static_cast<size_t>(n));
    return path.substr(0, path.rfind('/'));
}

bool pinSelf(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return sched_setaffinity(0, sizeof(set), &set) == 0;
}

// The loaded phase: one busy process per CPU, placed by the scheduler, beside the measurement.
class Load {
  public:
    explicit Load(bool on) {
        for (long i = 0; on && i < sysconf(_SC_NPROCESSORS_ONLN); ++i) {
            pid_t pid = fork();
            if (pid == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives a bench that dies
                for (volatile unsigned long n = 0;; n = n + 1) {
                }
            }
            if (pid > 0) mPids.push_back(pid);
        }
    }
    ~Load() {
        for (pid_t pid : mPids) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }

  private:
    std::vector<pid_t> mPids;
};

enum { kOrvd, kHold, kUnlocked, kSubjects };
const char* const kSubjectNames[kSubjects] = {"orvd", "hold-lock", "unlocked"};

// The three measurements of one placement, each subject's figures side by side.
struct PlacementFigures {
    Figures latency[kSubjects], pipe[kSubjects], frames[kSubjects];
};

using BlockFn = bool (*)(Subject&, int, Figures&);

// Alternating blocks: every subject sees the same moments of the machine.
bool measure(Subject* subj, BlockFn block, int size, int runs, Figures* out) {
    for (int b = 0; b < runs; ++b)
        for (int k = 0; k < kSubjects; ++k) {
            int i = (b + k) % kSubjects;
            if (!block(subj[i], size, out[i])) return false;
        }
    return true;
}

double ratio(double a, double b) {
    return b > 0 ? a / b : 0;
}

void printFigures(const char* placement, const char* what, const char* unit, Figures* f) {
    printf("%-26s %-10s %-4s", placement, what, unit);
    for (int i = 0; i < kSubjects; ++i)
        printf(" | %8.2f %6.2f %5.2f", f[i].median(), f[i].cpuUs(), f[i].switchesPer());
    printf(" | %5.2f %5.2f %5.2f\n", ratio(f[kOrvd].median(), f[kHold].median()),
           ratio(f[kOrvd].cpuUs(), f[kHold].cpuUs()),
           ratio(f[kOrvd].switchesPer(), f[kHold].switchesPer()));
}

// A target on the ratio orvd/hold-lock, judged in the placement where orvd does worst.
void printTarget(const char* what, std::vector<double> ratios, bool atLeast, double bound) {
    std::sort(ratios.begin(), ratios.end());
    double worst = atLeast ? ratios.front() : ratios.back();
    double median = ratios[ratios.size() / 2];
    bool met = atLeast ? worst >= bound : worst <= bound;
    printf("  %-44s %s %.2f: worst placement %.2f, median %.2f  %s\n", what,
           atLeast ? ">=" : "<=", bound, worst, median, met ? "met" : "MISSED");
}

bool runPhase(const char* phase, Subject* subj, const Sizes& z, int placements) {
    Load load(strcmp(phase, "loaded") == 0);
    printf("\n[%s] load average %s\n", phase, loadAverage().c_str());
    printf("%-26s %-10s %-4s", "placement (cpu0 | cpu1)", "measure", "unit");
    for (int i = 0; i < kSubjects; ++i) printf(" | %-10s  cpu/ev cs/ev", kSubjectNames[i]);
    printf(" | orvd/hold: value cpu cs\n");
    std::vector<double> rate, pipeCpu, frameCpu;
    for (int p = 0; p < placements; ++p) {
        const Placement& pl = kPlacements[p];
        if (!pinSelf(pl.client)) return false;
        for (int i = 0; i < kSubjects; ++i)
            if (!subj[i].server->pin(pl.listener, pl.worker)) return false;
        PlacementFigures f;
        if (!measure(subj, latencyBlock, z.latencyEvents, z.runs, f.latency) ||
            !measure(subj, pipelineBlock, z.pipeEvents, z.runs, f.pipe) ||
            !measure(subj, framingBlock, z.frameCount, z.runs, f.frames))
            return false;
        printFigures(pl.name, "latency", "us", f.latency);
        printFigures("", "pipelined", "k/s", f.pipe);
        printFigures("", "framing", "k/s", f.frames);
        rate.push_back(ratio(f.pipe[kOrvd].median(), f.pipe[kHold].median()));
        pipeCpu.push_back(ratio(f.pipe[kOrvd].cpuUs(), f.pipe[kHold].cpuUs()));
        frameCpu.push_back(ratio(f.frames[kOrvd].cpuUs(), f.frames[kHold].cpuUs()));
    }
    printf("targets, orvd/hold-lock [%s]:\n", phase);
    printTarget("pipelined rate", rate, true, 0.9);
    printTarget("CPU per pipelined event", pipeCpu, false, 1.15);
    printTarget("CPU per frame (framing + dispatch)", frameCpu, false, 1.4);
    return true;
}

int runEvents(const Options& opt, const Sizes& z, const std::string& tmp) {
    std::string orvdRoot = makeRoot(tmp, "orvd", "");
    writeFile(orvdRoot + "/data/orvpolicy", e2eEventPolicy(orvdRoot + "/effect"));
    std::string holdRoot = makeRoot(tmp, "hold", ""), freeRoot = makeRoot(tmp, "unlocked", "");
    const std::string baseline = opt.bin + "/orv_bench_baseline";
    Subject subj[kSubjects];
    subj[kOrvd].server.reset(new E2eServer("orvd", {opt.bin + "/orvd"}, orvdRoot));
    subj[kHold].server.reset(
        new E2eServer("hold-lock", {baseline, "--hold-lock", holdRoot + "/effect"}, holdRoot));
    subj[kUnlocked].server.reset(
        new E2eServer("unlocked", {baseline, freeRoot + "/effect"}, freeRoot));
    for (int i = 0; i < kSubjects; ++i)
        if (!prepare(subj[i], i == kOrvd)) return 1;
    // Memory after start: resident, proportional share and private, orvd then the hold-lock one.
    long mem[2][4];
    for (int i = 0; i < 2; ++i) {
        E2eServer& s = *subj[i].server;
        mem[i][0] = s.rssKb();
        mem[i][1] = s.memoryKb("Pss");
        mem[i][2] = s.memoryKb("Private_Clean") + s.memoryKb("Private_Dirty");
        mem[i][3] = s.memoryKb("Anonymous");
    }
    const int placements = sysconf(_SC_NPROCESSORS_ONLN) >= 2 ? 4 : 1;
    printf(
        "Per event: the median over %d blocks of each block's value (latency: the block's p50), "
        "the server's CPU time (us) and context switches, all threads, over all blocks.\n",
        z.runs);
    printf(
        "Blocks of the three servers alternate; each placement pins the client and the "
        "servers' threads.\n");
    std::string phases = opt.phases + ",";
    for (size_t at = 0, comma; (comma = phases.find(',', at)) != std::string::npos; at = comma + 1) {
        std::string phase = phases.substr(at, comma - at);
        if (phase.empty()) continue;
        if (!runPhase(phase.c_str(), subj, z, placements)) return 1;
    }
    printf(
        "\nmemory after start, kB: RSS Pss private anonymous | orvd %ld %ld %ld %ld | hold-lock "
        "%ld %ld %ld %ld | orvd RSS at the end %ld\n",
        mem[0][0], mem[0][1], mem[0][2], mem[0][3], mem[1][0], mem[1][1], mem[1][2], mem[1][3],
        subj[kOrvd].server->rssKb());
    printf("  %-44s <= 3584 kB: %s\n", "orvd RSS after start", mem[0][0] <= 3584 ? "met" : "MISSED");
    pinSelf(0);
    cpu_set_t all;
    CPU_ZERO(&all);
    for (long c = 0; c < sysconf(_SC_NPROCESSORS_ONLN); ++c) CPU_SET(c, &all);
    sched_setaffinity(0, sizeof(all), &all);
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
    printf("\nstart-up until \"sys.orv.enable\" is set, columns p50 p90 p99\n");
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
    bool phasesGiven = false;
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
        } else if (a == "--phases" && i + 1 < argc) {
            opt.phases = argv[++i];
            phasesGiven = true;
        } else {
            fprintf(
                stderr,
                "usage: orv_bench_e2e [--quick] [--only events|startup] [--phases quiet,loaded] "
                "[--bin DIR] [--example POLICY]\n");
            return 2;
        }
    }
    char tmpl[] = "/tmp/orv-e2e-XXXXXX";
    if (!mkdtemp(tmpl)) return 1;
    const Sizes& z = opt.quick ? kQuick : kFull;
    // The smoke test keeps the machine to itself.
    if (opt.quick && !phasesGiven) opt.phases = "quiet";
    printf("orvd end-to-end benchmark%s: %ld CPUs\n", opt.quick ? " (quick)" : "",
           sysconf(_SC_NPROCESSORS_ONLN));
    int rc = opt.only == "startup" ? 0 : runEvents(opt, z, tmpl);
    if (rc == 0 && opt.only != "events") rc = runStartups(opt, z, tmpl);
    std::string cleanup = std::string("rm -rf ") + tmpl;
    if (system(cleanup.c_str()) != 0) rc = rc ? rc : 1;
    return rc;
}
