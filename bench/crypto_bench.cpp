#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "crypto/Aes256.h"
#include "crypto/OrvPolicyDecoder.h"
#include "crypto/Sha256.h"
#include "tools/codec/OrvPolicyEncoder.h"

namespace {

std::string randomBytes(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::string s(n, '\0');
    for (auto& c : s) c = static_cast<char>(rng());
    return s;
}

// The daemon's whole load-time path: read the file, decode, decipher, check, write.
void BM_DecryptPolicyFile(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    OrvProtectOptions opts;
    opts.rngSeed = 1;
    std::string text, error;
    if (!orvProtectPolicy(randomBytes(size, 2), opts, text, &error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    char dir[] = "/tmp/orvbench.XXXXXX";
    if (!mkdtemp(dir)) {
        state.SkipWithError("no scratch directory");
        return;
    }
    const std::string src = std::string(dir) + "/in", dst = std::string(dir) + "/out";
    std::ofstream(src, std::ios::binary) << text;
    for (auto _ : state) {
        if (!decrypt_policy_file(src, dst)) {
            state.SkipWithError("decryption failed");
            break;
        }
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(size));
    unlink(src.c_str());
    unlink(dst.c_str());
    rmdir(dir);
}
BENCHMARK(BM_DecryptPolicyFile)->Arg(4 << 10)->Arg(64 << 10)->Unit(benchmark::kMillisecond);

void BM_ProtectPolicy(benchmark::State& state) {
    const std::string doc = randomBytes(static_cast<size_t>(state.range(0)), 3);
    OrvProtectOptions opts;
    opts.rngSeed = 4;
    std::string text;
    for (auto _ : state) {
        benchmark::DoNotOptimize(orvProtectPolicy(doc, opts, text, nullptr));
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_ProtectPolicy)->Arg(4 << 10)->Unit(benchmark::kMicrosecond);

void BM_Sha256(benchmark::State& state) {
    const std::string data = randomBytes(static_cast<size_t>(state.range(0)), 5);
    uint8_t digest[32];
    for (auto _ : state) {
        sha256_context ctx;
        sha256_init(&ctx);
        sha256_update(&ctx, data.data(), data.size());
        sha256_final(&ctx, digest);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_Sha256)->Arg(64)->Arg(4 << 10)->Arg(64 << 10);

void BM_AesDecryptBlock(benchmark::State& state) {
    uint8_t key[32];
    for (int i = 0; i < 32; ++i) key[i] = static_cast<uint8_t>(i * 7);
    uint8_t block[16] = {0};
    aes256_context ctx;
    memset(&ctx, 0, sizeof(ctx));
    aes256_init(&ctx, key);
    for (auto _ : state) {
        aes256_decrypt_ecb(&ctx, block);
        benchmark::DoNotOptimize(block);
    }
    aes256_done(&ctx);
    state.SetBytesProcessed(int64_t(state.iterations()) * 16);
}
BENCHMARK(BM_AesDecryptBlock)->Unit(benchmark::kMicrosecond);

}  // namespace
