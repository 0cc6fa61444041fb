# Thin wrapper over CMake: `make demo` runs the example host and decodes its dump,
# `make check` builds everything and runs every test. Both work on a fresh machine.
BUILD ?= build
JOBS ?= 2
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all demo check clean

all:
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS)

demo: all
	@rm -rf $(BUILD)/demo && mkdir -p $(BUILD)/demo
	QUARRY_PATH=$(CURDIR)/$(BUILD)/demo/ $(BUILD)/examples/demo_host
	@echo
	@echo "== quarry-decode $(BUILD)/demo/demo_host/ =="
	QUARRY_DEC_PATH=$(CURDIR)/examples/ $(BUILD)/tools/decode/quarry-decode $(BUILD)/demo/demo_host/

check: all
	ctest --test-dir $(BUILD) --output-on-failure -j$(JOBS)

clean:
	rm -rf $(BUILD)
