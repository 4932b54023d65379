# Developer entry points. `make test` is what CI runs on a fresh machine.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc 2>/dev/null || sysctl -n hw.ncpu 2>/dev/null || echo 2)

.PHONY: all deps configure build test demo bench clean

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

clean:
	rm -rf $(BUILD_DIR)
