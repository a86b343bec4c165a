# Entry points. Each verb installs what is missing first.
PRESET ?= debug
JOBS   ?= $(shell nproc)

.PHONY: setup build test bench clean

setup:
	@scripts/setup

build: setup
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	ctest --preset $(PRESET)

bench: PRESET = release
bench: build
	bench/run

clean:
	rm -rf build
