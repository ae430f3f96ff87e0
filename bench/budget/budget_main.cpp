// Instruction budgets: a fixed session against orvd run under callgrind, whose instruction counts
// do not depend on the machine's load or the placement of threads. Each figure is compared with
// its budget in the budget file; one more than 3 % over fails the run.
//
// The session is cut into runs of their own, each a whole process: the per-event figures are the
// difference to a run that does everything but the events, divided by their number.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bench/e2e/E2eEffect.h"
#include "bench/e2e/E2ePolicies.h"
#include "bench/e2e/E2eServer.h"
#include "protocol/include/orv/protocol.h"
#include "tools/codec/OrvPolicyEncoder.h"

namespace {

const int kSkip = 77;            // ctest's skip code
const double kSlack = 0.03;      // how far a figure may pass its budget
const int kFrames = 20000;       // N frames of framing and dispatch
const int kChanges = 2000;       // M pipelined state changes
const unsigned kPauseUs = 1000;  // between looks at the effect file, orvd being slow

const char kApp[] = "com.bench.app";
const int kPid = 1234;

struct Options {
    std::string bin, example, budgets, toolchain;
    std::string keep;  // where the callgrind reports stay, for callgrind_annotate
    bool record = false;
};

// The tool's full path, as execv does not search PATH; empty when it is not there.
std::string onPath(const char* tool) {
    const char* path = getenv("PATH");
    std::stringstream dirs(path ? path : "");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        std::string file = dir + "/" + tool;
        if (!dir.empty() && access(file.c_str(), X_OK) == 0) return file;
    }
    return "";
}

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

std::string listView(orv::ListView type) {
    std::string payload;
    orv::appendFields(payload, kPid, type);
    return orv::frame(orv::LIST_VIEW, payload);
}

// What a run does once orvd is up; false when orvd did not answer as it should.
enum class Traffic { None, Setup, Frames, Changes };

// Total instructions of one run of orvd under callgrind: its start on `policy`, the traffic, and
// its end on SIGINT. -1 on failure.
long long run(const Options& opt, const std::string& dir, const std::string& policy,
              Traffic traffic) {
    mkdir(dir.c_str(), 0755);
    mkdir((dir + "/data").c_str(), 0755);
    const std::string effect = dir + "/effect";
    const std::string report = dir + "/callgrind.out";
    std::string text = policy == "event" ? e2eEventPolicy(effect) : policy;
    if (!writeFile(dir + "/data/orvpolicy", text) || !writeFile(effect, "0")) return -1;
    E2eServer orvd("orvd under callgrind",
                   {onPath("valgrind"), "--tool=callgrind", "--callgrind-out-file=" + report, "-q",
                    opt.bin + "/orvd"},
                   dir);
    if (orvd.start() < 0) return -1;
    bool ok = true;
    if (traffic != Traffic::None) {
        E2eEffect seen(effect);
        std::string p = std::to_string(kPid) + ";" + kApp;
        ok = orvd.connectClient() &&
             orvd.sendAll(orv::frame(orv::PROCESS_START, p) +
                          orv::frame(orv::ACTIVITY_START, p + ";act;x") +
                          orv::frame(orv::ACTIVITY_DISPLAYED, p)) &&
             seen.waitFor('1', kPauseUs) && orvd.sync();
        std::string batch;
        if (ok && traffic == Traffic::Frames) {
            // A process start of a known pid: cut, dispatched, and changing nothing.
            const std::string one = orv::frame(orv::PROCESS_START, p);
            for (int i = 0; i < kFrames; ++i) batch += one;
            ok = orvd.sendAll(batch) && orvd.sync();
        } else if (ok && traffic == Traffic::Changes) {
            for (int i = 0; i + 1 < kChanges; ++i)
                batch += listView(i % 2 == 0 ? orv::ListView::Scroll : orv::ListView::Idle);
            batch += listView(orv::ListView::Fling);
            ok = orvd.sendAll(batch) && seen.waitFor('3', kPauseUs) && orvd.sync();
        }
    }
    if (!orvd.interrupt() || !ok) return -1;
    std::ifstream in(report);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, 8, "summary:") == 0) return atoll(line.c_str() + 8);
        if (line.compare(0, 7, "totals:") == 0) return atoll(line.c_str() + 7);
    }
    fprintf(stderr, "budget: no instruction total in %s\n", report.c_str());
    return -1;
}

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The figures of the session, in the order of the budget file.
bool measure(const Options& opt, const std::string& tmp,
             std::vector<std::pair<std::string, long long>>& out) {
    std::string example = readAll(opt.example), protectedText, error;
    OrvProtectOptions popt;
    popt.rngSeed = 1;
    if (example.empty() ||
        !orvProtectPolicy(e2eSizedPolicy(64 * 1024), popt, protectedText, &error)) {
        fprintf(stderr, "budget: no example policy at %s, or it cannot be protected: %s\n",
                opt.example.c_str(), error.c_str());
        return false;
    }
    long long setup = run(opt, tmp + "/setup", "event", Traffic::Setup);
    long long frames = run(opt, tmp + "/frames", "event", Traffic::Frames);
    long long changes = run(opt, tmp + "/changes", "event", Traffic::Changes);
    long long startExample = run(opt, tmp + "/example", example, Traffic::None);
    long long startProtected = run(opt, tmp + "/protected", protectedText, Traffic::None);
    if (setup < 0 || frames < 0 || changes < 0 || startExample < 0 || startProtected < 0)
        return false;
    out = {
        {"frame", (frames - setup) / kFrames},
        {"pipelined-state-change", (changes - setup) / kChanges},
        {"start-example-policy", startExample},
        {"start-protected-64k", startProtected},
    };
    return true;
}

// Budget file: "name instructions" lines; "toolchain ..." names the build they were taken with;
// "#" starts a comment.
bool readBudgets(const std::string& path, std::map<std::string, long long>& budgets,
                 std::string& toolchain) {
    std::ifstream in(path);
    if (!in) return false;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        std::string name;
        fields >> name;
        if (name == "toolchain") {
            std::getline(fields >> std::ws, toolchain);
        } else {
            fields >> budgets[name];
        }
    }
    return true;
}

int compare(const Options& opt, const std::vector<std::pair<std::string, long long>>& figures) {
    std::map<std::string, long long> budgets;
    std::string toolchain;
    if (!readBudgets(opt.budgets, budgets, toolchain)) {
        fprintf(stderr, "budget: cannot read %s\n", opt.budgets.c_str());
        return 1;
    }
    int over = 0;
    printf("%-24s %14s %14s %8s\n", "instructions per", "budget", "now", "change");
    for (const auto& [name, now] : figures) {
        auto it = budgets.find(name);
        long long budget = it == budgets.end() ? 0 : it->second;
        double change = budget > 0 ? 100.0 * static_cast<double>(now - budget) / budget : 0;
        bool failed = budget <= 0 || now > budget * (1 + kSlack);
        over += failed;
        printf("%-24s %14lld %14lld %+7.1f%%%s\n", name.c_str(), budget, now, change,
               budget <= 0 ? "  NO BUDGET"
               : failed    ? "  OVER BUDGET"
                           : "");
    }
    if (toolchain != opt.toolchain) {
        printf(
            "budget: the budgets were taken with \"%s\", this build is \"%s\": figures are not "
            "comparable, so none is judged (skipped)\n",
            toolchain.c_str(), opt.toolchain.c_str());
        return kSkip;
    }
    if (over) {
        printf(
            "budget: %d figure(s) more than %.0f %% over budget in %s; if the cost is meant, "
            "raise the line in the same commit and say why\n",
            over, kSlack * 100, opt.budgets.c_str());
        return 1;
    }
    printf("budget: every figure within %.0f %% of its budget\n", kSlack * 100);
    return 0;
}

int record(const Options& opt, const std::vector<std::pair<std::string, long long>>& figures) {
    std::ifstream in(opt.budgets);
    std::string header;
    for (std::string line; std::getline(in, line) && line.rfind("#", 0) == 0;)
        header += line + "\n";
    std::string text = header + "toolchain " + opt.toolchain + "\n";
    for (const auto& [name, now] : figures) text += name + " " + std::to_string(now) + "\n";
    if (!writeFile(opt.budgets, text)) return 1;
    printf("budget: recorded into %s\n", opt.budgets.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--skip" && i + 1 < argc) {
            printf("skipped: %s\n", argv[i + 1]);
            return kSkip;
        } else if (a == "--keep" && i + 1 < argc) {
            opt.keep = argv[++i];
        } else if (a == "--record") {
            opt.record = true;
        } else if (i + 1 < argc &&
                   (a == "--bin" || a == "--example" || a == "--budgets" || a == "--toolchain")) {
            std::string& field = a == "--bin"       ? opt.bin
                                 : a == "--example" ? opt.example
                                 : a == "--budgets" ? opt.budgets
                                                    : opt.toolchain;
            field = argv[++i];
        } else {
            fprintf(stderr,
                    "usage: orv_bench_budget --bin DIR --example POLICY --budgets FILE "
                    "--toolchain TEXT [--record] [--keep DIR] | --skip REASON\n");
            return 2;
        }
    }
    if (onPath("valgrind").empty()) {
        printf("skipped: valgrind is not installed (scripts/install-deps installs it)\n");
        return kSkip;
    }
    char tmpl[] = "/tmp/orv-budget-XXXXXX";
    if (opt.keep.empty() && !mkdtemp(tmpl)) return 1;
    if (!opt.keep.empty()) mkdir(opt.keep.c_str(), 0755);
    std::vector<std::pair<std::string, long long>> figures;
    bool ok = measure(opt, opt.keep.empty() ? tmpl : opt.keep, figures);
    std::string cleanup = std::string("rm -rf ") + tmpl;
    if (opt.keep.empty() && system(cleanup.c_str()) != 0) ok = false;
    if (!opt.keep.empty())
        printf("budget: callgrind reports kept in %s/*/callgrind.out (callgrind_annotate)\n",
               opt.keep.c_str());
    if (!ok) {
        fprintf(stderr, "budget: the session did not run through\n");
        return 1;
    }
    return opt.record ? record(opt, figures) : compare(opt, figures);
}
