#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "policy/OrvActionManager.h"

namespace {

// A policy shaped like a shipped one: a default reset over a few nodes, 40 applications of
// which half borrow their actions and params from a base entry, and a shared boost group.
// Every "xfs" target is a regular file in a temporary root.
struct Policy {
    Policy() {
        char tmpl[] = "/tmp/orvbench.XXXXXX";
        root = mkdtemp(tmpl);
        setenv("ORV_ROOT", root.c_str(), 1);
        std::filesystem::create_directories(root + "/data");
        for (const char* node : {"cpu_min", "cpu_max", "gpu_min", "sched_boost", "touch_boost"})
            std::ofstream(root + "/" + node) << "0";
        auto write = [&](const char* node, const std::string& value, const char* type) {
            std::string v = std::string(type) == "int" ? value : "\"" + value + "\"";
            return R"({"method":"xfs","path":")" + root + "/" + node + R"(","type":")" + type +
                   R"(","value":)" + v + "}";
        };
        std::string apps;
        for (int i = 0; i < 40; ++i) {
            std::string name = "com.example.app" + std::to_string(i);
            if (i % 2 == 1) {
                apps += ",\"" + name + R"(":{"param":{"reference":"com.example.base"},)" +
                        R"("action":{"reference":"com.example.base"}})";
                continue;
            }
            apps += ",\"" + name + R"(":{"param":{"event_mask":")" + std::to_string(i) +
                    R"("},"action":{"launch":{"on_enter":[{"method":"group","path":"boost"}],)" +
                    R"("on_exit":[)" + write("touch_boost", "0", "int") +
                    R"(]},"run":{"policy":[)" + write("cpu_min", std::to_string(1000 + i), "int") +
                    "," + write("gpu_min", "300", "string") + R"(]}}})";
        }
        std::string json =
            R"({"parser":"v1.0","version":"v2","default":{"action":{"reset":{"policy":[)" +
            write("cpu_min", "0", "int") + "," + write("cpu_max", "2000", "int") + "," +
            write("gpu_min", "0", "string") + R"(]}}},"policy_group":{"boost":[)" +
            write("sched_boost", "1", "int") + "," + write("touch_boost", "1", "int") +
            R"(]},"applications":{"com.example.base":{"param":{"large_heap":"true",)" +
            R"("event_mask":"0110"},"action":{"launch":{"on_enter":[{"method":"group",)" +
            R"("path":"boost"}]},"run":{"policy":[)" + write("cpu_min", "1500", "int") + "]}}}" +
            apps + "}}";
        std::ofstream(root + "/data/orvpolicy") << json;
        manager = new OrvActionManager();  // never freed: its queue thread never stops
        ok = manager->init();
    }
    ~Policy() { std::filesystem::remove_all(root); }

    std::string root;
    OrvActionManager* manager = nullptr;
    bool ok = false;
};

Policy& policy() {
    static Policy p;
    return p;
}

// One app switch between two defined applications (exit, default reset, enter, policy),
// run on the calling thread as the action queue would run it.
void BM_AppSwitch(benchmark::State& state) {
    Policy& p = policy();
    if (!p.ok) {
        state.SkipWithError("policy did not load");
        return;
    }
    const bool viaReference = state.range(0) != 0;
    const char* a = viaReference ? "com.example.app1" : "com.example.app0";
    const char* b = viaReference ? "com.example.app3" : "com.example.app2";
    OrvActionManager::OrvAction toB(a, 100, 101, "run", b, 200, 201, "launch");
    OrvActionManager::OrvAction toA(b, 200, 201, "run", a, 100, 101, "run");
    for (auto _ : state) {
        p.manager->executeAppChangeAction(&toB);
        p.manager->executeAppChangeAction(&toA);
    }
    state.SetItemsProcessed(state.iterations() * 2);
}
BENCHMARK(BM_AppSwitch)->Arg(0)->Arg(1)->ArgName("via_reference");

void BM_FindAppParam(benchmark::State& state) {
    Policy& p = policy();
    if (!p.ok) {
        state.SkipWithError("policy did not load");
        return;
    }
    const char* const lookups[][2] = {
        {"com.example.app20", "event_mask"},  // own value
        {"com.example.app21", "large_heap"},  // through a reference
        {"com.example.app22", "large_heap"},  // not there
        {"com.example.none", "large_heap"},   // unknown application
    };
    const auto& q = lookups[state.range(0)];
    std::string out;
    for (auto _ : state) {
        benchmark::DoNotOptimize(p.manager->findAppParam(q[0], q[1], out));
    }
}
BENCHMARK(BM_FindAppParam)->DenseRange(0, 3)->ArgName("case");

}  // namespace
