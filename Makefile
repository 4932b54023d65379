# Developer entry points. `make test` is what CI runs on a fresh machine.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc 2>/dev/null || sysctl -n hw.ncpu 2>/dev/null || echo 2)

.PHONY: all deps configure build test demo bench fuzz test-sanitize clean

all: build

deps:
	scripts/install-deps

configure:
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: deps build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

# Runs the agent end to end against a local development server.
demo: deps build
	BUILD_DIR=$(BUILD_DIR) scripts/demo

# Benchmarks: their own optimised build (RelWithDebInfo, the shipped
# optimisation with symbols for perf) and databases cached under build/.
# BENCH_ARGS passes options, e.g. BENCH_ARGS="--sizes 10k --runs 3".
BENCH_BUILD_DIR ?= build-bench
BENCH_DATA ?= build/bench-data
BENCH_ARGS ?=
bench: deps
	cmake -S . -B $(BENCH_BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BENCH_BUILD_DIR) -j $(JOBS) --target corvane-bench
	$(BENCH_BUILD_DIR)/corvane-bench --data $(BENCH_DATA) $(BENCH_ARGS)

# libFuzzer targets (clang, ASan and UBSan) in their own build, each run for
# FUZZ_SECONDS; FUZZ_TARGETS picks some, e.g. FUZZ_TARGETS="phone text".
FUZZ_BUILD_DIR ?= build-fuzz
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?=
FUZZ_CXX ?= clang++
fuzz:
	scripts/install-deps --fuzz
	cmake -S . -B $(FUZZ_BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=$(FUZZ_CXX) \
	  -DCORVANE_BUILD_FUZZ=ON -DCORVANE_BUILD_TESTS=OFF -DCORVANE_SANITIZE=address,undefined
	cmake --build $(FUZZ_BUILD_DIR) -j $(JOBS) --target fuzzers
	fuzz/run $(FUZZ_BUILD_DIR) $(FUZZ_SECONDS) $(FUZZ_TARGETS)

# The whole suite under AddressSanitizer and UndefinedBehaviorSanitizer, then
# the tests that use threads under ThreadSanitizer, each in its own build.
ASAN_BUILD_DIR ?= build-asan
TSAN_BUILD_DIR ?= build-tsan
TSAN_TESTS ?= ^(OsascriptTest|MemoryStateStoreTest|ContactsCacheTest|DaemonTest|APIClientTest|HeadlessE2E[.]DaemonStops)
# -O1 as the sanitizers' documentation advises, line tables only: a quicker
# build with stack traces that still name every line.
SANITIZE_CMAKE = -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1"
SANITIZE_ENV = ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:check_initialization_order=1:strict_init_order=1 \
  UBSAN_OPTIONS=print_stacktrace=1 TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
test-sanitize: deps
	cmake -S . -B $(ASAN_BUILD_DIR) $(SANITIZE_CMAKE) -DCORVANE_SANITIZE=address,undefined
	cmake --build $(ASAN_BUILD_DIR) -j $(JOBS)
	cd $(ASAN_BUILD_DIR) && $(SANITIZE_ENV) ctest --output-on-failure -j $(JOBS)
	cmake -S . -B $(TSAN_BUILD_DIR) $(SANITIZE_CMAKE) -DCORVANE_SANITIZE=thread
	cmake --build $(TSAN_BUILD_DIR) -j $(JOBS) --target corvane_tests
	cd $(TSAN_BUILD_DIR) && $(SANITIZE_ENV) ctest --output-on-failure -j $(JOBS) --no-tests=error \
	  -R '$(TSAN_TESTS)'

clean:
	rm -rf $(BUILD_DIR)
