# The two commands of the README:
#   make run    installs what building and running need, builds the app (no tests), starts it
#   make test   installs everything the tests need too, builds all, runs every test inside a private
#               desktop session
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
CTEST_ARGS ?=

.PHONY: all run test test-asan fuzz bench package clean

all: run

# A first configure for running only needs no test libraries; make test turns the tests on.
run:
	./scripts/install-deps.sh build run
	test -f $(BUILD_DIR)/build.ninja || \
		cmake --preset default -B $(BUILD_DIR) -DVELNORA_BUILD_TESTS=OFF -DVELNORA_BUILD_BENCH=OFF
	cmake --build $(BUILD_DIR) --target velnora -j $(JOBS)
	$(BUILD_DIR)/src/velnora

test:
	./scripts/install-deps.sh build run test
	cmake --preset default -B $(BUILD_DIR) -DVELNORA_BUILD_TESTS=ON -DVELNORA_BUILD_BENCH=ON
	cmake --build $(BUILD_DIR) -j $(JOBS)
	./scripts/desktop-session.sh ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS) $(CTEST_ARGS)

# Unit, gui and desktop tests under AddressSanitizer and UndefinedBehaviorSanitizer. Reports go to files, so
# that one from a process a test starts (whose output the test may not show) fails the run too.
test-asan:
	./scripts/install-deps.sh build run test
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
	./scripts/install-deps.sh build fuzz
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)
	./tests/fuzz/run-fuzzers.sh build-fuzz $(FUZZ_SECONDS)

# The Debian package, velnora_<version>_<architecture>.deb in the build folder. Its time stamps are the
# last commit's, so two runs on one commit give the same file.
package:
	./scripts/install-deps.sh build
	test -f $(BUILD_DIR)/build.ninja || \
		cmake --preset default -B $(BUILD_DIR) -DVELNORA_BUILD_TESTS=OFF -DVELNORA_BUILD_BENCH=OFF
	cmake --build $(BUILD_DIR) -j $(JOBS)
	cd $(BUILD_DIR) && cpack -G DEB
	@ls $(BUILD_DIR)/velnora_*.deb

bench:
	./scripts/install-deps.sh build run test
	cmake --preset default -B $(BUILD_DIR) -DVELNORA_BUILD_TESTS=ON -DVELNORA_BUILD_BENCH=ON
	cmake --build $(BUILD_DIR) -j $(JOBS)
	@for b in $(BUILD_DIR)/bench/bench_*; do [ -x "$$b" ] && ./scripts/desktop-session.sh "$$b"; done; true

clean:
	rm -rf $(BUILD_DIR) build-asan build-fuzz
