# Entry points. Each verb installs what is missing first.
PRESET ?= debug
JOBS   ?= $(shell nproc)

.PHONY: setup build test demo soak bench clean test-asan test-tsan fuzz ci

setup:
	@scripts/setup

build: setup
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	ctest --preset $(PRESET)

# The system end to end: installs what is missing, builds only the agent,
# the peer and the lumen tool (release), runs them and verifies the result.
# DEMO_SIZE=VNIS:MACS, DEMO_CHURN=S, DEMO_SEED=N, DEMO_SKIP_VNI=V (see scripts/demo).
demo:
	@scripts/demo

# Long churn of the shared tables against an oracle (default 300 s).
SOAK_SECONDS ?= 300
soak: build
	LUMEN_CHURN_SECONDS=$(SOAK_SECONDS) build/$(PRESET)/tests/platform/lumen/lumen_tests \
	   --gtest_filter='LumenChurn.*'

bench: PRESET = release
bench: build
	bench/run

clean:
	rm -rf build

# ---- sanitizers and fuzzing (what .ci/run runs after `make test`)

# The whole suite under AddressSanitizer + UndefinedBehaviorSanitizer.
test-asan: setup
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan

# The Lumen, exchange and import suites under ThreadSanitizer (the tsan
# presets build and run only those three binaries).
test-tsan: setup
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan

# Every libFuzzer target for FUZZ_SECONDS (default 60) each; clang build.
FUZZ_SECONDS ?= 60
fuzz: setup
	FUZZ_SECONDS=$(FUZZ_SECONDS) FUZZ_JOBS=$(JOBS) scripts/fuzz

# What CI runs, in order.
ci:
	.ci/run
