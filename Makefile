# Developer entry points. `make test` is what CI runs on a fresh machine.
# The make that cmake --build runs is a sub-make, which would announce every
# directory it enters and leaves; that is noise here.
MAKEFLAGS += --no-print-directory
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc 2>/dev/null || sysctl -n hw.ncpu 2>/dev/null || echo 2)

.PHONY: all deps configure build test demo screenshots package bench soak footprint fuzz test-sanitize clean

all: build

deps:
	@scripts/install-deps

# A fresh machine lacks the libraries; configuring finds them installed.
configure: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: deps build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

# Runs the agent end to end against a local development server. Builds only
# the three programs the demo runs (not the tests), and shows the build's
# progress and the agent's output rather than make's.
demo: deps
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) --log-level=WARNING
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target demo-programs
	@BUILD_DIR=$(BUILD_DIR) scripts/demo

# The setup window's screens and the menu, rendered offscreen into
# docs/screenshots/ (the README shows them).
screenshots: deps configure
	cmake --build $(BUILD_DIR) -j $(JOBS) --target Corvane
	QT_QPA_PLATFORM=offscreen $(BUILD_DIR)/Corvane --snapshot-setup docs/screenshots

# macOS only: Corvane.app with Qt and Sparkle inside, signed (ad hoc unless
# CORVANE_SIGN_IDENTITY names one), notarised when credentials are given, and
# a disk image, all in $(BUILD_DIR)/package. scripts/package-mac lists the
# variables.
package:
	@BUILD_DIR=$(BUILD_DIR) BUILD_TYPE=$(BUILD_TYPE) JOBS=$(JOBS) scripts/package-mac

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

# The soak: the daemon loop for 1,000 cycles (SOAK_ARGS="--cycles N" for
# more) with messages, sends, directory changes and server faults between
# them; fails when the process grows. The benchmark's build and databases.
SOAK_ARGS ?=
soak: deps
	cmake -S . -B $(BENCH_BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BENCH_BUILD_DIR) -j $(JOBS) --target corvane-soak
	$(BENCH_BUILD_DIR)/corvane-soak --data $(BENCH_DATA) $(SOAK_ARGS)

# The application's memory, threads, CPU and wake-ups after the first sync of
# a million messages, beside a bare Qt tray application (Linux; about five
# minutes). FOOTPRINT_IDLE_SECONDS sets the idle period watched (180).
footprint: deps configure
	cmake --build $(BUILD_DIR) -j $(JOBS) --target Corvane corvane-devserver chatdb-gen corvane-bare-tray
	bench/footprint/run $(BUILD_DIR) $(BENCH_DATA)

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
# Neither builds the bench, and the ThreadSanitizer build compiles only the
# test files it runs: the tests are most of the build time.
ASAN_BUILD_DIR ?= build-asan
TSAN_BUILD_DIR ?= build-tsan
# Under ThreadSanitizer: prefixes of ctest names (Suite.Test, as
# gtest_discover_tests names them), each of which must match at least one
# test, and the files under tests/ that hold those tests.
TSAN_TESTS ?= OsascriptTest. MemoryStateStoreTest. ContactsCacheTest. DaemonTest. StopSourceTest. APIClientTest. \
  HeadlessE2E.DaemonStops JsonFileUserDefaultsTest.Concurrent AppModelSyncTest.ACycleOfAReplacedAccount \
  AppModelSyncTest.AModelGoneWhileItsCycleRuns
TSAN_TEST_FILES ?= send/osascript_test.cpp sync/state_store_test.cpp sync/sync_daemon_test.cpp \
  api/api_client_test.cpp e2e/headless_e2e_test.cpp platform/user_defaults_test.cpp \
  model/app_model_sync_test.cpp
empty :=
space := $(empty) $(empty)
TSAN_PATTERNS = $(subst .,[.],$(strip $(TSAN_TESTS)))
# -O1 as the sanitizers' documentation advises, line tables only: a quicker
# build with stack traces that still name every line.
SANITIZE_CMAKE = -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1" -DCORVANE_BUILD_BENCH=OFF
# Suppressions cover third-party libraries only; scripts/sanitizer/ says why.
SANITIZE_ENV = ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:check_initialization_order=1:strict_init_order=1 \
  UBSAN_OPTIONS=print_stacktrace=1 \
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$(CURDIR)/scripts/sanitizer/tsan.supp
test-sanitize: deps
	cmake -S . -B $(ASAN_BUILD_DIR) $(SANITIZE_CMAKE) -DCORVANE_SANITIZE=address,undefined \
	  -DCORVANE_TEST_FILES=
	cmake --build $(ASAN_BUILD_DIR) -j $(JOBS)
	cd $(ASAN_BUILD_DIR) && $(SANITIZE_ENV) ctest --output-on-failure -j $(JOBS)
	cmake -S . -B $(TSAN_BUILD_DIR) $(SANITIZE_CMAKE) -DCORVANE_SANITIZE=thread \
	  -DCORVANE_TEST_FILES="$(subst $(space),;,$(strip $(TSAN_TEST_FILES)))"
	cmake --build $(TSAN_BUILD_DIR) -j $(JOBS) --target corvane_tests
	@set -f; cd $(TSAN_BUILD_DIR) && for p in $(TSAN_PATTERNS); do \
	  ctest -N -R "^$$p" | grep -q '^Total Tests: [1-9]' || \
	  { echo "test-sanitize: no test matches TSAN_TESTS entry $$p" >&2; exit 1; }; done
	cd $(TSAN_BUILD_DIR) && $(SANITIZE_ENV) ctest --output-on-failure -j $(JOBS) --no-tests=error \
	  -R '^($(subst $(space),|,$(TSAN_PATTERNS)))'

clean:
	rm -rf $(BUILD_DIR)
