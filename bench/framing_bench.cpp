#include <benchmark/benchmark.h>
#include <orvhost/host.h>
#include <sys/socket.h>
#include <sysutils/SocketClient.h>
#include <unistd.h>

#include <string>

#include "protocol/OrvMsgHandler.h"
#include "protocol/include/orv/protocol.h"

namespace {

// Handler without context or policy: what is measured is the framing and the field parsing.
struct Wire {
    Wire() {
        socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
        client = new SocketClient(fds[0], false);
    }
    ~Wire() {
        delete client;
        close(fds[0]);
        close(fds[1]);
    }
    int fds[2] = {-1, -1};
    SocketClient* client = nullptr;
};

// One full read (up to 511 bytes) of back-to-back registry frames.
void BM_ConsumeFullRead(benchmark::State& state) {
    Wire wire;
    OrvMsgHandler handler;
    std::string read;
    int frames = 0;
    for (int pid = 1000; read.size() + 40 < 511; ++pid, ++frames) {
        read += orv::frame(orv::PROCESS_START,
                           std::to_string(pid) + ";com.example.app" + std::to_string(pid % 10));
    }
    for (auto _ : state) {
        handler.consume(read.c_str(), static_cast<int>(read.size()), wire.client);
    }
    state.SetItemsProcessed(state.iterations() * frames);
}
BENCHMARK(BM_ConsumeFullRead);

void dropLog(int, const char*, const char*, void*) {}

// A frame cut in two reads: the first is parsed, judged incomplete and kept. Its warnings are
// formatted but kept off stderr.
void BM_ConsumeSplitFrame(benchmark::State& state) {
    orvhost_set_log_hook(dropLog, nullptr, false);
    Wire wire;
    OrvMsgHandler handler;
    std::string whole = orv::frame(orv::GLTHREAD_DETTACH, "1234;5678");
    std::string head = whole.substr(0, 8), tail = whole.substr(8);
    for (auto _ : state) {
        handler.consume(head.c_str(), static_cast<int>(head.size()), wire.client);
        handler.consume(tail.c_str(), static_cast<int>(tail.size()), wire.client);
    }
    state.SetItemsProcessed(state.iterations());
    orvhost_set_log_hook(nullptr, nullptr, true);
}
BENCHMARK(BM_ConsumeSplitFrame);

}  // namespace
