# tarvo3532 on the development host: `make demo` and `make test` work on a
# fresh machine; they install what is missing with apt-get first.

SHELL := /bin/bash
JOBS ?= $(shell nproc)
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

# Host build and tests, the ARM cross build run under qemu-arm, the
# libraries of the simulated board, and what the master emulator's report
# needs (MP4 muxing, plots, and the browser its test opens it in).
APT_PACKAGES := cmake make g++ libgtest-dev libgmock-dev googletest libbenchmark-dev libopenh264-dev \
                g++-arm-linux-gnueabi qemu-user \
                libjpeg62-turbo-dev libfreetype-dev fonts-dejavu-core libpng-dev pkg-config \
                clang libclang-rt-14-dev \
                libavformat-dev libavcodec-dev libavutil-dev gnuplot-nox chromium

DEMO_BOARD ?= $(CURDIR)/build/demo-board
DEMO_OUT ?= $(CURDIR)/build/demo-record

.PHONY: all deps build build-arm test test-host arm-test asan tsan release bench bench-run demo soak fuzz fuzz-build fuzz-targets fuzz-short fuzz-corpus clean

all: build

deps:
	@missing=$$(for p in $(APT_PACKAGES); do dpkg -s $$p >/dev/null 2>&1 || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "installing:" $$missing; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq $$missing >/dev/null; \
	fi

build: deps
	@cmake --preset debug >/dev/null
	@cmake --build --preset debug -j$(JOBS)

build-arm: deps
	@cmake --preset arm >/dev/null
	@cmake --build --preset arm -j$(JOBS)

# Every test: the host suite (unit and end-to-end) and the unit suite built
# for 32-bit ARM and run under qemu-arm.
# Every host and ARM test, then each fuzz target for 30 s.
test: build build-arm fuzz-targets
	@ctest --preset debug -j$(JOBS)
	@ctest --preset arm -j$(JOBS)
	@tools/fuzz.sh $(CURDIR)/build-fuzz 30

test-host: build
	@ctest --preset debug -j$(JOBS)

arm-test: build-arm
	@ctest --preset arm -j$(JOBS)

asan: deps
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j$(JOBS)
	@ctest --preset asan -j$(JOBS)

tsan: deps
	@cmake --preset tsan >/dev/null
	@cmake --build --preset tsan -j$(JOBS)
	@ctest --preset tsan -j$(JOBS)

release: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j$(JOBS)

# Every benchmark runs; the target fails when one of them fails (or when
# there is none to run).
BENCH_DIR ?= build-release/bench

bench: release
	@$(MAKE) --no-print-directory bench-run

bench-run:
	@ran=0; failed=""; \
	for b in $(BENCH_DIR)/bench_*; do \
	  [ -f "$$b" ] && [ -x "$$b" ] || continue; \
	  ran=$$((ran + 1)); \
	  "$$b" || failed="$$failed $$(basename "$$b")"; \
	done; \
	if [ $$ran -eq 0 ]; then echo "make bench: no benchmark in $(BENCH_DIR)" >&2; exit 1; fi; \
	if [ -n "$$failed" ]; then echo "make bench: failed:$$failed" >&2; exit 1; fi

# The master emulator starts DEMO_SLAVES slaves (default 1) of DEMO_CAMERAS
# cameras (default 8) and records every stream for DEMO_SECONDS (default 30)
# into DEMO_OUT: one .h264 file per camera and stream, and summary.json.
demo: build
	@tools/demo.sh $(CURDIR)/build $(DEMO_BOARD) $(DEMO_OUT)

# The 8-camera recorder for SOAK_SECONDS (default an hour) under the address
# and undefined sanitizers: RSS growth and a leak check at the end. Not part
# of `make test`.
SOAK_SECONDS ?= 3600

soak: deps
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j$(JOBS) --target tarvo3532 tarvo-master
	@SOAK_SECONDS=$(SOAK_SECONDS) SIM_CACHE=$(CURDIR)/.sim-cache tools/soak.sh $(CURDIR)/build-asan $(CURDIR)/build-asan/soak-board $(CURDIR)/build-asan/soak

# libFuzzer targets (clang, address and undefined sanitizers): the command
# dispatcher and the playback intake, each run FUZZ_SECONDS (default 60),
# one after the other; fails on any crash or sanitizer report.
FUZZ_SECONDS ?= 60

fuzz-build: deps
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz -j$(JOBS)

# Only the two targets `make test` runs (not the corpus writer).
fuzz-targets: deps
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz -j$(JOBS) --target fuzz_cmd fuzz_dec_intake

fuzz: fuzz-build
	@tools/fuzz.sh $(CURDIR)/build-fuzz $(FUZZ_SECONDS)

fuzz-short: fuzz-build
	@tools/fuzz.sh $(CURDIR)/build-fuzz 30

# Rewrites the seed corpora from the slave's own records.
fuzz-corpus: fuzz-build
	@rm -rf tests/fuzz/corpus
	@build-fuzz/tests/fuzz/fuzz_make_corpus tests/fuzz/corpus

clean:
	rm -rf build build-arm build-asan build-tsan build-release build-fuzz
