# The two commands of the README:
#   make run    installs what is missing, builds, starts the app
#   make test   installs what is missing, builds, runs every test inside a private desktop session
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
CTEST_ARGS ?=

.PHONY: all deps build run test test-asan fuzz bench package clean

all: build

deps:
	./scripts/install-deps.sh

$(BUILD_DIR)/build.ninja:
	cmake --preset default -B $(BUILD_DIR)

build: deps $(BUILD_DIR)/build.ninja
	cmake --build $(BUILD_DIR) -j $(JOBS)

run: build
	$(BUILD_DIR)/src/velnora

test: build
	./scripts/desktop-session.sh ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS) $(CTEST_ARGS)

# Unit, gui and desktop tests under AddressSanitizer and UndefinedBehaviorSanitizer. Reports go to files, so
# that one from a process a test starts (whose output the test may not show) fails the run too.
test-asan: deps
	cmake --preset asan
	cmake --build build-asan -j $(JOBS)
	rm -rf build-asan/sanitizer-reports && mkdir -p build-asan/sanitizer-reports
	./scripts/desktop-session.sh ctest --preset asan -j $(JOBS) $(CTEST_ARGS); status=$$?; \
	if [ -n "$$(ls build-asan/sanitizer-reports)" ]; then \
	  cat build-asan/sanitizer-reports/*; echo "test-asan: sanitizer reports above" >&2; exit 1; fi; \
	exit $$status

# Every fuzz target for FUZZ_SECONDS each, one after the other; corpora stay in build-fuzz/tests/fuzz/corpus.
FUZZ_SECONDS ?= 60
fuzz:
	./scripts/install-deps.sh fuzz
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)
	./tests/fuzz/run-fuzzers.sh build-fuzz $(FUZZ_SECONDS)

# The Debian package (velnora_<version>_amd64.deb in the build folder), from the build the tests use.
package: build
	cmake --build $(BUILD_DIR) --target package

bench: build
	@for b in $(BUILD_DIR)/bench/bench_*; do [ -x "$$b" ] && "$$b"; done; true

clean:
	rm -rf $(BUILD_DIR) build-asan build-fuzz
