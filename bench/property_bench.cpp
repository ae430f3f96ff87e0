#include <benchmark/benchmark.h>
#include <cutils/properties.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

namespace {

// A store of its own, removed afterwards; ORV_ROOT points there while it lives.
struct Store {
    Store() {
        char tmpl[] = "/tmp/orvbench.XXXXXX";
        dir = mkdtemp(tmpl);
        setenv("ORV_ROOT", dir.c_str(), 1);
    }
    ~Store() {
        unsetenv("ORV_ROOT");
        std::filesystem::remove_all(dir);
    }
    std::string dir;
};

// What the daemon pays on every arrival of socket data: the debug switch, read again unchanged.
void BM_PropertyGetUnchanged(benchmark::State& state) {
    Store store;
    property_set("sys.orv.debug.daemon", "0");
    char value[PROPERTY_VALUE_MAX];
    for (auto _ : state) {
        benchmark::DoNotOptimize(property_get("sys.orv.debug.daemon", value, "0"));
    }
}
BENCHMARK(BM_PropertyGetUnchanged);

// A read right after each set: the cache must let go of the value every time.
void BM_PropertySetThenGet(benchmark::State& state) {
    Store store;
    char value[PROPERTY_VALUE_MAX];
    int i = 0;
    for (auto _ : state) {
        property_set("bench.prop", (++i & 1) ? "1" : "0");
        benchmark::DoNotOptimize(property_get("bench.prop", value, ""));
    }
}
BENCHMARK(BM_PropertySetThenGet);

}  // namespace
