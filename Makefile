# Thin wrapper around CMake; every target installs what it needs first.
BUILD      ?= build
JOBS       ?= $(shell nproc)
CTEST_ARGS ?= --output-on-failure -j$(JOBS) --timeout 120
# Rebuilds of the three configurations share one compiler cache when ccache is there.
CMAKE_ARGS ?= $(if $(shell command -v ccache),-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)

.PHONY: all deps build check check-stress check-asan check-tsan check-device check-real-platform demo demo-live bench bench-e2e fuzz soak format clean

all: build

deps:
	@scripts/install-deps

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j$(JOBS)

check: build
	cd $(BUILD) && ctest $(CTEST_ARGS)

# Not part of check: the tests and the demo STRESS_RUNS times each beside two CPU-bound processes.
STRESS_RUNS ?= 20
check-stress: build
	@scripts/install-deps --stress
	CTEST_ARGS="$(CTEST_ARGS)" scripts/check-stress $(BUILD) $(STRESS_RUNS)

check-asan: deps
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug $(CMAKE_ARGS) -DORV_SANITIZE=address
	cmake --build build-asan -j$(JOBS)
	cd build-asan && ctest $(CTEST_ARGS)

check-tsan: deps
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug $(CMAKE_ARGS) -DORV_SANITIZE=thread
	cmake --build build-tsan -j$(JOBS)
	cd build-tsan && TSAN_OPTIONS="suppressions=$(CURDIR)/tests/tsan.supp halt_on_error=1" ctest $(CTEST_ARGS)

# The device modules compiled as an AOSP tree would, and the SELinux policy checked; no tree needed.
check-device:
	@scripts/install-deps --device
	@if [ -n "$$AOSP_SEPOLICY" ]; then scripts/install-deps --sepolicy; fi
	scripts/check-device

# The daemon on AOSP's real libsysutils/libcutils socket code from SYSTEM_CORE (a
# platform/system/core tree or git directory); says that it skipped when none is given.
check-real-platform:
	scripts/check-real-platform "$(SYSTEM_CORE)"

demo: build
	scripts/demo $(BUILD)

# Real cgroups and processes; needs root (it says so and skips otherwise).
demo-live: build
	@scripts/install-deps --demo-live
	scripts/demo-live $(BUILD)

# The daemon's own paths, then both framework clients against a running orvd.
bench: build
	$(BUILD)/bin/orv_bench
	$(BUILD)/bin/orv_bench_client
	cmake --build $(BUILD) --target orv_bench_java

# orvd against a minimal program doing the same hop, in alternating blocks of one run.
bench-e2e: build
	$(BUILD)/bin/orv_bench_e2e

# Each libFuzzer target in turn, FUZZ_SECONDS apiece (FUZZ_TARGETS: consume policy decoder).
FUZZ_SECONDS ?= 120
fuzz:
	@scripts/install-deps --fuzz
	scripts/fuzz $(FUZZ_SECONDS) $(FUZZ_TARGETS)

# The real daemon under hostile traffic for SOAK_MINUTES.
SOAK_MINUTES ?= 2
soak: build
	scripts/soak $(BUILD) $(SOAK_MINUTES)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build build-asan build-tsan build-fuzz
