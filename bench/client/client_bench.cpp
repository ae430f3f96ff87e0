// The framework's view of the native client: what one event call costs the calling thread, and
// how many events per second reach orvd through it.
#include <orv/OrvClient.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "BenchDaemon.h"

namespace {

long long nowNs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

bool waitFor(OrvClient& client, const std::string& text, int ms) {
    const long long end = nowNs() + ms * 1000000LL;
    while (nowNs() < end) {
        std::optional<std::string> dump = client.dump();
        if (dump && dump->find(text) != std::string::npos) return true;
        usleep(1000);
    }
    return false;
}

std::string binDir(const char* argv0) {
    std::string self = argv0;
    size_t slash = self.rfind('/');
    return slash == std::string::npos ? "." : self.substr(0, slash);
}

}  // namespace

int main(int, char** argv) {
    BenchDaemon orvd(binDir(argv[0]));
    OrvClient::Options options;
    options.socketPath = orvd.socket();
    options.queueCapacity = 4096;
    OrvClient client(options);
    if (!waitFor(client, "[version]", 10000)) {
        fprintf(stderr, "orv_bench_client: orvd did not answer\n");
        return 1;
    }
    const int pid = 5;
    client.start(pid, BenchDaemon::kApp);
    client.displayed(pid, BenchDaemon::kApp);

    // Caller's cost: bursts that fit the queue, drained in between, so every call is queued.
    const int kBursts = 400, kBurst = 64;
    std::vector<long long> costs;
    costs.reserve(kBursts * kBurst);
    for (int b = 0; b < kBursts; ++b) {
        for (int i = 0; i < kBurst; ++i) {
            long long t0 = nowNs();
            client.listView(orv::ListView::Idle, pid);
            costs.push_back(nowNs() - t0);
        }
        client.flush(5000);
    }
    std::sort(costs.begin(), costs.end());
    const double median = costs[costs.size() / 2] / 1000.0;
    const double p99 = costs[costs.size() * 99 / 100] / 1000.0;

    // Rate through to orvd: the screen-off event behind the burst shows when orvd had them all.
    const int kEvents = 200000;
    const OrvClient::Stats before = client.stats();
    const long long t0 = nowNs();
    for (int i = 0; i < kEvents; ++i) {
        // A full queue is waited out here only; a framework caller would have dropped.
        while (!client.listView(orv::ListView::Idle, pid)) sched_yield();
    }
    client.goingToSleep();
    const bool arrived = waitFor(client, "IsScreenOn: false", 60000);
    const double seconds = (nowNs() - t0) / 1e9;
    const OrvClient::Stats after = client.stats();

    printf("C++ client (liborvclient), against orvd:\n");
    printf("  event call on the caller's thread: median %.3f us, p99 %.3f us (%zu calls)\n", median,
           p99, costs.size());
    if (!arrived) {
        fprintf(stderr, "orv_bench_client: orvd never saw the end of the burst\n");
        return 1;
    }
    printf(
        "  events through to orvd: %.0f events/s (%d events in %.3f s, %llu full-queue retries)\n",
        kEvents / seconds, kEvents, seconds,
        static_cast<unsigned long long>(after.dropped - before.dropped));
    return 0;
}
