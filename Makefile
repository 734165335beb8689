# The two commands a user needs: `make test` and `make demo`. Each installs
# what is missing, builds and runs.
JOBS ?= $(shell nproc)
# Seconds each fuzzer runs for in `make fuzz`.
FUZZ_SECONDS ?= 60

.PHONY: test demo deps build build-clang test-clang test-gcc check-format check-thread-safety check-android-bp test-tsan test-asan test-arm64 \
	bench bench-build bench-run bench-callgrind bench-latency fuzz clean

# Every stage in order (scripts/run-tests.sh), with a per-stage summary at the end.
test: deps
	@scripts/run-tests.sh

# Plays the default scenario through the built library on virtual time and
# writes its trace and its HTML page; then replays two real device captures:
# a 2012 systrace and a Perfetto trace of a phone today.
DEMO_SCENARIO ?= tools/scenarios/video_with_subtitles.json
DEMO_CAPTURE ?= tools/captures/catapult_android_systrace.ftrace.txt.gz
DEMO_CAPTURE_RULES ?= tools/scenarios/rules/launcher_strict.json
DEMO_PERFETTO ?= tools/captures/nowinandroid_pixel7pro_a13_frametimeline.perfetto-trace
DEMO_DIR := build/demo

demo: deps build
	@mkdir -p $(DEMO_DIR)
	build/default/tools/pelto-sim $(DEMO_SCENARIO) \
	  --trace $(DEMO_DIR)/pelto.trace --html $(DEMO_DIR)/pelto.html
	@echo
	@echo "demo: trace     $(CURDIR)/$(DEMO_DIR)/pelto.trace (open it in Perfetto UI or trace_processor)"
	@echo "demo: HTML page $(CURDIR)/$(DEMO_DIR)/pelto.html (open it in a browser)"
	@echo
	@echo "demo: a real capture (the launcher scrolling on an Android 4.1 phone), replayed"
	build/default/tools/pelto-sim --capture $(DEMO_CAPTURE) --rules $(DEMO_CAPTURE_RULES) \
	  --write-scenario $(DEMO_DIR)/capture.json --html $(DEMO_DIR)/capture.html
	@echo
	@echo "demo: the capture's HTML page $(CURDIR)/$(DEMO_DIR)/capture.html"
	@echo
	@echo "demo: a Perfetto trace of a phone today (an app starting on a Pixel 7 Pro, Android 13, 120 Hz), replayed in API mode"
	build/default/tools/pelto-sim --capture $(DEMO_PERFETTO) --quiet --html $(DEMO_DIR)/perfetto.html
	@echo
	@echo "demo: the Perfetto trace's HTML page $(CURDIR)/$(DEMO_DIR)/perfetto.html"

deps:
	@scripts/install-deps.sh

build:
	cmake --preset default >/dev/null
	cmake --build --preset default -j $(JOBS)

test-gcc: build
	ctest --preset default

# Android trees build with clang and without exceptions: the library and its
# tests are built that way here too, and the whole suite runs on them.
build-clang:
	cmake --preset clang >/dev/null
	cmake --build --preset clang -j $(JOBS)

test-clang: build-clang
	ctest --preset clang

check-thread-safety:
	scripts/check-thread-safety.sh

check-format:
	scripts/check-format.sh

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

# The library and its tests cross-built for arm64, where the library ships,
# and the tests run under qemu's user-mode emulator (cmake/, the arm64 preset).
# The arm64 C library installed beside the host's provides the dynamic loader
# at /lib/ld-linux-aarch64.so.1, so qemu needs no -L prefix.
ARM64_P7ZIP_DIR := build/arm64/p7zip

test-arm64:
	@scripts/install-arm64-deps.sh $(ARM64_P7ZIP_DIR)
	cmake --preset arm64 >/dev/null
	cmake --build --preset arm64 -j $(JOBS)
	ctest --preset arm64

# Benchmarks of the per-frame paths beside their floors (bench/README.md):
# the suite with repetitions, interleaved at random, then the instruction
# counts under callgrind. Never part of `make test`.
BENCH_REPETITIONS ?= 10
BENCH_MIN_TIME ?= 0.2
BENCH = build/default/bench/pelto_bench

bench:
	$(MAKE) bench-run
	$(MAKE) bench-callgrind
	$(MAKE) bench-latency

bench-build:
	@scripts/install-deps.sh valgrind
	cmake --preset default >/dev/null
	cmake --build --preset default -j $(JOBS) --target pelto_bench pelto_reload_latency

bench-run: bench-build
	$(BENCH) --benchmark_repetitions=$(BENCH_REPETITIONS) --benchmark_min_time=$(BENCH_MIN_TIME) \
		--benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true

bench-callgrind: bench-build
	scripts/bench-callgrind.sh $(BENCH)

# Composite latency while other threads reload the rules or register layers.
LATENCY_SECONDS ?= 5
bench-latency: bench-build
	build/default/bench/pelto_reload_latency --seconds=$(LATENCY_SECONDS)

# libFuzzer targets under ASan+UBSan, side by side (one job each) for
# FUZZ_SECONDS over a scratch copy of each seed corpus; fails on any crash,
# leak, timeout or broken invariant.
fuzz: deps
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz -j $(JOBS) --target pelto_rule_file_fuzzer pelto_controller_fuzzer \
	  pelto_perfetto_fuzzer pelto_capture_fuzzer
	scripts/run-fuzzers.sh $(FUZZ_SECONDS)

clean:
	rm -rf build
