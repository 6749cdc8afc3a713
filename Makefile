# Wraps CMake. `make demo` runs the main job; `make test` builds and runs every test.
# Both install missing Debian packages first.

BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

PACKAGES := cmake make g++ qtbase5-dev qtbase5-dev-tools python3 python3-aiohttp \
            python3-pytest curl aria2 time shared-mime-info openssl
# Only `make fuzz` needs these.
FUZZ_PACKAGES := clang libclang-rt-14-dev

FUZZ_TARGETS := probeheaders uploadcache
FUZZ_SECONDS ?= 60
# Scratch corpus and crash inputs: the committed corpus stays as it is.
FUZZ_WORK    ?= $(FUZZ_BUILD)/work

.PHONY: all deps fuzz-deps configure build test test-asan demo install package bench bench-scale fuzz clean

all: build

# $(call install_missing,PACKAGES): installs those not installed yet, as root;
# otherwise prints the command and fails.
define install_missing
	@missing=""; \
	for p in $(1); do \
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
endef

deps:
	$(call install_missing,$(PACKAGES))

fuzz-deps:
	$(call install_missing,$(FUZZ_PACKAGES))

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) $(CMAKE_ARGS)

configure: deps $(BUILD)/CMakeCache.txt

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# Last, the size of the tests against the code and the suite's time.
test: build
	cd $(BUILD) && start=$$(date +%s) && ctest --output-on-failure --timeout 600 && \
	  $(CURDIR)/tests/report-shape --suite-seconds $$(( $$(date +%s) - start ))

test-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DZT_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ctest --output-on-failure --timeout 900

# Only ztcli and the plugin: the tests are not needed to run the demo.
demo: configure
	@echo "Building ztcli and the plugin (a first build takes about a minute and a half on an idle 2-core machine)"
	cmake --build $(BUILD) -j $(JOBS) --target ztcli
	$(BUILD)/cli/ztcli demo

# ztcli in $(PREFIX)/bin, the plugin, the host library and the file service
# beside it in $(PREFIX)/lib/ztserver and $(PREFIX)/share/ztserver. Prefix it
# with DESTDIR=... to stage; root is needed for a system prefix.
PREFIX ?= /usr/local
install: configure
	cmake --build $(BUILD) -j $(JOBS) --target ztcli
	cmake --install $(BUILD) --prefix $(PREFIX)

# A Debian package of the same files under /usr: $(BUILD)/ztserver_*.deb.
package: configure
	cmake --build $(BUILD) -j $(JOBS) --target ztcli
	cd $(BUILD) && cpack -G DEB

# Not part of `test`: measures the plugin against curl, aria2c and cp on a
# 1 GiB file (ZT_BENCH_SIZE_MB to change) and writes bench/results.md.
bench: build
	bench/run-bench $(BUILD)

# Not part of `test`: the cost of many parts and many files. Uploads one file in
# 512 to 4096 parts of 64 KiB, 1000 files of 10 KiB up and down beside curl, and
# a 1000-file upload killed half way and resumed; writes its own section of
# bench/results.md (ZT_BENCH_STEP_TIMEOUT bounds each command, default 300 s).
bench-scale: build
	bench/run-bench-scale $(BUILD)

# Not part of `test` (which replays the kept inputs): runs each libFuzzer target
# for FUZZ_SECONDS on a scratch copy of its corpus. A crash fails the run; copy
# the input it names into tests/fuzz/regressions/<target>/ to keep it.
fuzz: deps fuzz-deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DZT_FUZZ=ON $(CMAKE_ARGS)
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target $(addprefix fuzz_,$(FUZZ_TARGETS))
	@failed=""; \
	for t in $(FUZZ_TARGETS); do \
	  work=$(abspath $(FUZZ_WORK))/$$t; \
	  rm -rf $$work && mkdir -p $$work/corpus $$work/artifacts $$work/tmp || exit 1; \
	  cp tests/fuzz/corpus/$$t/* tests/fuzz/regressions/$$t/* $$work/corpus/ || exit 1; \
	  echo "== fuzz_$$t for $(FUZZ_SECONDS) s"; \
	  if ! TMPDIR=$$work/tmp LSAN_OPTIONS=suppressions=$(CURDIR)/tests/fuzz/lsan.supp:print_suppressions=0 \
	       $(FUZZ_BUILD)/tests/fuzz/fuzz_$$t -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	       -artifact_prefix=$$work/artifacts/ $$work/corpus; then \
	    failed="$$failed $$t"; \
	    echo "fuzz_$$t failed; its input:"; ls -1 $$work/artifacts/* 2>/dev/null | sed 's/^/  /'; \
	    echo "keep it: cp <input> tests/fuzz/regressions/$$t/"; \
	  fi; \
	done; \
	if [ -n "$$failed" ]; then echo "fuzz: crashes in:$$failed"; exit 1; fi

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)
