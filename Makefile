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
	@echo "== quarry-decode -d $(BUILD)/examples $(BUILD)/demo/demo_host/ (newest trace file of each buffer, merged by time) =="
	@$(BUILD)/tools/decode/quarry-decode -d $(BUILD)/examples $(BUILD)/demo/demo_host/ > $(BUILD)/demo/decoded.txt
	@head -n 8 $(BUILD)/demo/decoded.txt; echo "..."; tail -n 8 $(BUILD)/demo/decoded.txt
	@echo "($$(wc -l < $(BUILD)/demo/decoded.txt) records in $(BUILD)/demo/decoded.txt)"
	@echo
	@echo "== quarry-decode --summary -d $(BUILD)/examples $(BUILD)/demo/demo_host/app/ =="
	@$(BUILD)/tools/decode/quarry-decode --summary -d $(BUILD)/examples $(BUILD)/demo/demo_host/app/

check: all
	ctest --test-dir $(BUILD) --output-on-failure -j$(JOBS)

clean:
	rm -rf $(BUILD)
