# The two commands of the quick start:
#   make run    set up, build, and open Vellumary Contacts on the embedded default address book
#   make test   set up, build, and run every test, the sanitizer build included
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
FUZZ_DIR     := build/fuzz

.PHONY: run test setup build build-sanitize test-release test-sanitize bench fuzz format clean

run: build
	./$(RELEASE_DIR)/Kinbook/vellumary-contacts $(ARGS)

test: setup test-release test-sanitize

setup:
	bash scripts/setup.sh

$(RELEASE_DIR)/build.ninja:
	cmake -S . -B $(RELEASE_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKINBOOK_WERROR=ON $(CMAKE_FLAGS)

$(SANITIZE_DIR)/build.ninja:
	cmake -S . -B $(SANITIZE_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKINBOOK_SANITIZE=ON \
		-DKINBOOK_BUILD_BENCHMARKS=OFF -DKINBOOK_WERROR=ON $(CMAKE_FLAGS)

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

bench: build
	./scripts/bench.sh $(RELEASE_DIR)

fuzz: setup
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DKINBOOK_BUILD_FUZZERS=ON -DKINBOOK_BUILD_TESTS=OFF -DKINBOOK_BUILD_BENCHMARKS=OFF
	cmake --build $(FUZZ_DIR) -j $(JOBS)

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build
