# Developer entry points. `make test` is what CI runs on a fresh machine.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc 2>/dev/null || sysctl -n hw.ncpu 2>/dev/null || echo 2)

.PHONY: all deps configure build test demo clean

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

clean:
	rm -rf $(BUILD_DIR)
