# Thin wrapper over CMake: `make demo` runs the example host and decodes its dump,
# `make check` builds everything and runs every test. Both work on a fresh machine.
BUILD ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo
PREFIX ?= /usr/local

.PHONY: all configure demo check install deb consumers abi-baseline clean

configure:
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

all: configure
	cmake --build $(BUILD) -j$(JOBS)

# Only what the demo runs: the library, the example host (with kelp) and the decoder.
demo: configure
	cmake --build $(BUILD) -j$(JOBS) --target demo_host quarry-decode
	@rm -rf $(BUILD)/demo && mkdir -p $(BUILD)/demo
	QUARRY_PATH=$(CURDIR)/$(BUILD)/demo/ $(BUILD)/examples/demo_host
	@echo
	@echo "== quarry-decode -d $(BUILD)/examples $(BUILD)/demo/demo_host/ (newest trace file of each buffer, merged by time) =="
	@$(BUILD)/tools/decode/quarry-decode -d $(BUILD)/examples $(BUILD)/demo/demo_host/ > $(BUILD)/demo/decoded.txt
	@head -n 8 $(BUILD)/demo/decoded.txt; echo "..."; tail -n 8 $(BUILD)/demo/decoded.txt
	@echo "($$(wc -l < $(BUILD)/demo/decoded.txt) records in $(BUILD)/demo/decoded.txt)"
	@echo
	@echo "== quarry-decode --summary -d $(BUILD)/examples $(BUILD)/demo/demo_host/app/ =="
	@$(BUILD)/tools/decode/quarry-decode --summary -d $(BUILD)/examples $(BUILD)/demo/demo_host/app/

# Every test, with a private /dev/shm when the machine allows it, checking that the suite left
# the default trace directory alone (tests/ctest_isolated.sh).
check: all
	tests/ctest_isolated.sh --test-dir $(BUILD) --output-on-failure -j$(JOBS)

install: all
	cmake --install $(BUILD) --prefix $(PREFIX)

deb: all
	cd $(BUILD) && cpack -G DEB

# Builds and runs small C and C++ hosts against an installed quarry, every way a user would.
consumers:
	tests/consumers/run.sh $(BUILD)

# Rewrites abi/libquarry.abi from the library just built (see cmake/QuarryAbi.cmake).
abi-baseline: all
	cmake --build $(BUILD) --target abi-baseline

clean:
	rm -rf $(BUILD)
