# Entry points. Each verb installs what is missing first.
PRESET ?= debug
JOBS   ?= $(shell nproc)

.PHONY: setup build test demo soak soak-system bench bench-pipeline clean faults reliability test-asan test-tsan fuzz ci

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

# The whole system under churn: SOAK_HOSTS hosts (default 1M), four reader
# processes, SOAK_SECONDS of churn; resources must stay flat and every
# reader consistent (scripts/soak-system; release build).
soak-system: setup
	SOAK_SECONDS=$(SOAK_SECONDS) scripts/soak-system

# Fault injection against the running system (scripts/faults): agent kills
# (some inside a sweep, through the fault point of a Debug build), peer
# kills, export-table corruption. FAULTS_KILLS agent kills (default 100).
FAULTS_KILLS ?= 100
faults: PRESET = debug
faults: setup
	cmake --preset debug
	cmake --build --preset debug -j $(JOBS) --target orbevpn-agent orbevpn-peer lumen-tool
	FAULTS_KILLS=$(FAULTS_KILLS) scripts/faults

# The long forms of every reliability check in this tree (faults, system
# soak, fuzzing) and one summary table (scripts/reliability).
reliability: PRESET = debug
reliability: setup
	cmake --preset debug
	cmake --build --preset debug -j $(JOBS) --target orbevpn-agent orbevpn-peer lumen-tool
	FAULTS_KILLS=$(FAULTS_KILLS) scripts/reliability

bench: PRESET = release
bench: build
	bench/run

# Only the pipeline's benchmarks (export, import, burst, ingest, start-up)
# and the start-up plot; PIPELINE_BENCH_ARGS passes options.
bench-pipeline:
	bench/run --pipeline-only

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
