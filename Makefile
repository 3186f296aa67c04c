# The two commands of the quick start:
#   make run    set up, build, and open Vellumary Contacts on the embedded default address book
#   make test   set up, build, and run every test, the sanitizer and
#               ThreadSanitizer builds included
# Everything else here is a step of those two.

JOBS ?= $(shell nproc)
# A compiler cache makes rebuilds quick where one is installed; the build
# does not need it.
CCACHE := $(shell command -v ccache 2>/dev/null)
CMAKE_FLAGS ?= $(if $(CCACHE),-DCMAKE_CXX_COMPILER_LAUNCHER=$(CCACHE))
# Arguments for the application, e.g. ARGS="--contacts ~/.contacts".
ARGS ?=

RELEASE_DIR  := build/release
SANITIZE_DIR := build/sanitize
TSAN_DIR     := build/tsan
FUZZ_DIR     := build/fuzz
# How long `make fuzz` runs each fuzz target.
FUZZ_SECONDS ?= 60

.PHONY: run test setup build build-sanitize build-tsan test-release test-sanitize test-tsan bench fuzz format clean

run: build
	./$(RELEASE_DIR)/Kinbook/vellumary-contacts $(ARGS)

test: setup test-release test-sanitize test-tsan

setup:
	bash scripts/setup.sh

$(RELEASE_DIR)/build.ninja:
	cmake -S . -B $(RELEASE_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKINBOOK_WERROR=ON $(CMAKE_FLAGS)

$(SANITIZE_DIR)/build.ninja:
	cmake -S . -B $(SANITIZE_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKINBOOK_SANITIZE=ON \
		-DKINBOOK_BUILD_BENCHMARKS=OFF -DKINBOOK_WERROR=ON $(CMAKE_FLAGS)

# ThreadSanitizer: the core libraries' and the tool's tests, optimised (the
# sanitizer slows every memory access). The window and its tests are left
# out: Qt is not built with ThreadSanitizer, and its uninstrumented threads
# and atomics read as races that are not there.
$(TSAN_DIR)/build.ninja:
	cmake -S . -B $(TSAN_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKINBOOK_TSAN=ON \
		-DKINBOOK_BUILD_APP=OFF -DKINBOOK_BUILD_BENCHMARKS=OFF -DKINBOOK_WERROR=ON $(CMAKE_FLAGS)

build: setup $(RELEASE_DIR)/build.ninja
	cmake --build $(RELEASE_DIR) -j $(JOBS)

build-sanitize: setup $(SANITIZE_DIR)/build.ninja
	cmake --build $(SANITIZE_DIR) -j $(JOBS)

test-release: build
	ctest --test-dir $(RELEASE_DIR) --output-on-failure -j $(JOBS)

test-sanitize: build-sanitize
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		LSAN_OPTIONS=suppressions=$(CURDIR)/tests/sanitizer/lsan.supp \
		ctest --test-dir $(SANITIZE_DIR) --output-on-failure -j $(JOBS)

build-tsan: setup $(TSAN_DIR)/build.ninja
	cmake --build $(TSAN_DIR) -j $(JOBS)

test-tsan: build-tsan
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ctest --test-dir $(TSAN_DIR) --output-on-failure -j $(JOBS)

bench: build
	./scripts/bench.sh $(RELEASE_DIR)

# Every fuzz target for FUZZ_SECONDS each (fuzz/run.sh); the build holds the
# core libraries only, with the fuzzers' instrumentation.
fuzz: setup
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DKINBOOK_BUILD_FUZZERS=ON -DKINBOOK_BUILD_TESTS=OFF -DKINBOOK_BUILD_BENCHMARKS=OFF \
		-DKINBOOK_BUILD_APP=OFF $(CMAKE_FLAGS)
	cmake --build $(FUZZ_DIR) -j $(JOBS) --target kinbook_fuzzers
	./fuzz/run.sh $(FUZZ_DIR) $(FUZZ_SECONDS)

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build
