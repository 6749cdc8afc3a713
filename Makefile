# Wraps CMake. `make demo` runs the main job; `make test` builds and runs every test.
# Both install missing Debian packages first.

BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

PACKAGES := cmake make g++ qtbase5-dev qtbase5-dev-tools python3 python3-aiohttp \
            python3-pytest curl aria2 time shared-mime-info

.PHONY: all deps configure build test test-asan demo bench fuzz clean

all: build

deps:
	@missing=""; \
	for p in $(PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ]; then \
	    echo "Installing:$$missing"; \
	    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing; \
	  else \
	    echo "Missing packages. Run:"; \
	    echo "  sudo apt-get update && sudo apt-get install -y$$missing"; \
	    exit 1; \
	  fi; \
	fi

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) $(CMAKE_ARGS)

configure: deps $(BUILD)/CMakeCache.txt

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure --timeout 600

test-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DZT_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=0 ctest --output-on-failure --timeout 900

demo: build
	$(BUILD)/cli/ztcli demo

# Not part of `test`: measures the plugin against curl, aria2c and cp on a
# 1 GiB file (ZT_BENCH_SIZE_MB to change) and writes bench/results.md.
bench: build
	bench/run-bench $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
