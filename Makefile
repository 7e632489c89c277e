# The two commands a newcomer runs: `make demo` and `make test`.
BUILD   ?= build
JOBS    ?= $(shell nproc)
CMAKE_FLAGS ?=

DEBIAN_PACKAGES = build-essential cmake pkg-config libexpat1-dev libboost-dev \
  libboost-date-time-dev libgtest-dev libgmock-dev libbenchmark-dev libplist-dev \
  libdbus-1-dev dbus-daemon libmd-dev clang libclang-rt-14-dev valgrind \
  systemd lintian

SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: all deps configure build test demo clean
.PHONY: fuzz asan valgrind

all: build

# Installs only what is missing, so a prepared machine never touches the network.
deps:
	@missing=""; for p in $(DEBIAN_PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q 'install ok installed' || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends $$missing; \
	fi

configure: deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The demo needs root for its private mount namespace; see tools/demo/run-demo.sh.
demo: build
	$(SUDO) sh tools/demo/run-demo.sh $(BUILD)

# Debian packages of the library, its development files and the updater, in $(BUILD)/packages.
.PHONY: package
package: build
	cd $(BUILD) && cpack -G DEB -B packages

clean:
	rm -rf $(BUILD)

# Fuzzing: every fuzz/*_fuzz.cpp target, built with clang, libFuzzer and the sanitizers, runs
# for FUZZ_SECONDS; what it finds is kept in $(FUZZ_BUILD)/artifacts.
FUZZ_BUILD   ?= build-fuzz
FUZZ_SECONDS ?= 60
fuzz: deps
	JOBS=$(JOBS) sh fuzz/fuzz.sh run $(FUZZ_BUILD) $(FUZZ_SECONDS)

# The whole test suite under AddressSanitizer and UndefinedBehaviorSanitizer, less the fuzz smoke
# test, whose targets are sanitized builds already.
ASAN_BUILD ?= build-asan
asan: deps
	cmake -S . -B $(ASAN_BUILD) -DVANTU_SANITIZE=ON $(CMAKE_FLAGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ctest --output-on-failure -j $(JOBS) -E '^FuzzSmoke$$'

# The end-to-end tests of the exports under valgrind's memcheck: no error, no leak.
valgrind: build
	sh tests/VantuUpdaterLib/Memcheck.sh $(BUILD)

# Reliability at full length: TORTURE_PROCESSES hosts calling the exports at once for
# TORTURE_SECONDS, as one user and then (as root) as three administrators, then TORTURE_KILLS
# hosts killed at random moments of their saves. `make test` runs four-second tortures and the
# same thousand kills.
TORTURE_PROCESSES ?= 16
TORTURE_SECONDS   ?= 30
TORTURE_KILLS     ?= 1000
.PHONY: torture
torture: build
	$(BUILD)/tests/reliability/ReliabilityHarness torture --processes $(TORTURE_PROCESSES) --seconds $(TORTURE_SECONDS)
	$(BUILD)/tests/reliability/ReliabilityHarness torture --processes $(TORTURE_PROCESSES) --seconds $(TORTURE_SECONDS) --users 3 || [ $$? = 77 ]
	$(BUILD)/tests/reliability/ReliabilityHarness crash --kills $(TORTURE_KILLS)

# Benchmarks: the registration figures (every figure the median of repeated runs, every ratio
# between benchmarks run side by side) on a disk folder and on /dev/shm, printed as one table.
# BENCH_DIRS chooses the file systems; BENCH_FLAGS passes Google Benchmark options such as
# --benchmark_repetitions=9 or --benchmark_filter=Register. SQLite is the benchmark's yardstick.
DEBIAN_PACKAGES += libsqlite3-dev
BENCH_DIRS  ?= $(CURDIR)/$(BUILD)/bench-files /dev/shm
BENCH_FLAGS ?=
.PHONY: bench
bench: configure
	cmake --build $(BUILD) -j $(JOBS) --target UpdaterFigures_bench
	mkdir -p $(BUILD)/bench-files
	$(BUILD)/UpdaterFigures_bench $(addprefix --dir=,$(BENCH_DIRS)) $(BENCH_FLAGS)
