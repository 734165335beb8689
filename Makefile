# The two commands a user needs: `make test` and `make demo`. Each installs
# what is missing, builds and runs.
JOBS ?= $(shell nproc)
# Seconds each fuzzer runs for in `make fuzz`.
FUZZ_SECONDS ?= 60

.PHONY: test demo deps build build-clang test-gcc check-thread-safety check-android-bp test-tsan test-asan \
	bench bench-build bench-run bench-callgrind fuzz clean

test: deps
	$(MAKE) check-android-bp
	$(MAKE) check-thread-safety
	$(MAKE) test-gcc
	$(MAKE) build-clang
	$(MAKE) test-asan
	$(MAKE) test-tsan

# Plays the default scenario through the built library on virtual time and
# writes its trace and its HTML page.
DEMO_SCENARIO ?= tools/scenarios/video_with_subtitles.json
DEMO_DIR := build/demo

demo: deps build
	@mkdir -p $(DEMO_DIR)
	build/default/tools/pelto-sim $(DEMO_SCENARIO) \
	  --trace $(DEMO_DIR)/pelto.trace --html $(DEMO_DIR)/pelto.html
	@echo
	@echo "demo: trace     $(CURDIR)/$(DEMO_DIR)/pelto.trace (open it in Perfetto UI or trace_processor)"
	@echo "demo: HTML page $(CURDIR)/$(DEMO_DIR)/pelto.html (open it in a browser)"

deps:
	@scripts/install-deps.sh

build:
	cmake --preset default >/dev/null
	cmake --build --preset default -j $(JOBS)

test-gcc: build
	ctest --preset default

# Android trees build with clang: the same sources and tests must compile
# cleanly with it too.
build-clang:
	cmake --preset clang >/dev/null
	cmake --build --preset clang -j $(JOBS)

check-thread-safety:
	scripts/check-thread-safety.sh

check-android-bp:
	scripts/check-android-bp.sh

test-tsan:
	cmake --preset tsan >/dev/null
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan

test-asan:
	cmake --preset asan >/dev/null
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan

# Benchmarks of the per-frame paths beside their floors (bench/README.md):
# the suite with repetitions, interleaved at random, then the instruction
# counts under callgrind. Never part of `make test`.
BENCH_REPETITIONS ?= 10
BENCH_MIN_TIME ?= 0.2
BENCH = build/default/bench/pelto_bench

bench:
	$(MAKE) bench-run
	$(MAKE) bench-callgrind

bench-build:
	@scripts/install-deps.sh valgrind
	cmake --preset default >/dev/null
	cmake --build --preset default -j $(JOBS) --target pelto_bench

bench-run: bench-build
	$(BENCH) --benchmark_repetitions=$(BENCH_REPETITIONS) --benchmark_min_time=$(BENCH_MIN_TIME) \
		--benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true

bench-callgrind: bench-build
	scripts/bench-callgrind.sh $(BENCH)

# libFuzzer targets under ASan+UBSan, side by side (one job each) for
# FUZZ_SECONDS over a scratch copy of each seed corpus; fails on any crash,
# leak, timeout or broken invariant.
fuzz: deps
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz -j $(JOBS) --target pelto_rule_file_fuzzer pelto_controller_fuzzer
	scripts/run-fuzzers.sh $(FUZZ_SECONDS)

clean:
	rm -rf build
