# The two commands a newcomer runs: `make demo` and `make test`.
BUILD      ?= build
ASAN_BUILD ?= build-asan
STAGE      ?= $(CURDIR)/$(BUILD)/stage
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

.PHONY: all deps build test test-release test-asan demo bench fuzz clean

all: build

deps:
	scripts/install-deps.sh

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

test-release: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

$(ASAN_BUILD)/build.ninja:
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DGATEWISE_SANITIZE=ON \
	  -DGATEWISE_BENCH=OFF $(CMAKE_ARGS)

test-asan: deps $(ASAN_BUILD)/build.ninja
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

# The whole suite, then the same suite again under AddressSanitizer and UndefinedBehaviorSanitizer.
test: test-release test-asan

# Only what the demo runs (the library, the CLI, the daemons: the `demo_programs` target of
# CMakeLists.txt), not the tests and benchmarks.
demo: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS) --target demo_programs
	cmake --install $(BUILD) --prefix $(STAGE) >/dev/null
	scripts/demo.sh $(STAGE)

bench: build
	bench/run.sh $(BUILD)

# libFuzzer targets (clang), each run for FUZZ_SECONDS (default 20) on its seeds.
fuzz: deps
	@command -v clang++ >/dev/null || { echo "make fuzz needs clang: apt-get install clang" >&2; exit 1; }
	cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DGATEWISE_FUZZ=ON \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DGATEWISE_BENCH=OFF \
	  -DGATEWISE_TESTS=OFF
	cmake --build build-fuzz -j $(JOBS) --target fuzz_targets
	fuzz/run.sh build-fuzz

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) build-fuzz
