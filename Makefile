# Entry points. Each verb installs what is missing first.
PRESET ?= debug
JOBS   ?= $(shell nproc)

.PHONY: setup build test demo soak bench bench-pipeline clean

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

# Only the pipeline's benchmarks (export, import, burst, ingest, start-up)
# and the start-up plot; PIPELINE_BENCH_ARGS passes options.
bench-pipeline:
	bench/run --pipeline-only

clean:
	rm -rf build
