# The two set-up commands: `make demo` and `make test`.  Everything else is here
# for the engineer: `make` builds libkvt64.so, kvtmon, kvtps and KVT64.DLL.
JOBS ?= 2
CMAKE ?= cmake

.PHONY: all deps linux win asan tsan tsan-short install-cups uninstall-cups soak faults test test-linux test-asan demo bench screenshots fuzz clean

all: linux win

deps:
	@scripts/deps.sh $(DEPS_FLAGS)

linux: deps
	@$(CMAKE) -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@$(CMAKE) --build build -j$(JOBS)

win: deps
	@$(CMAKE) -S . -B build/win -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake -DCMAKE_BUILD_TYPE=Release >/dev/null
	@$(CMAKE) --build build/win -j$(JOBS)

asan: deps
	@$(CMAKE) -S . -B build/asan -DCMAKE_BUILD_TYPE=Debug -DKVT_SANITIZE=ON >/dev/null
	@$(CMAKE) --build build/asan -j$(JOBS)

# The Linux suite under the thread sanitizer: every test of the monitor, the
# platform and kvtps, the stress run among them.  A report fails the test that
# shows it; tests/tsan.supp lists the few known harmless ones, with reasons.
TSAN_RUN = TSAN_OPTIONS="suppressions=$(CURDIR)/tests/tsan.supp halt_on_error=1 second_deadlock_stack=1"
TSAN_TARGETS = --target monitor_tests --target platform_tests --target printserver_tests
tsan: deps
	@$(CMAKE) -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVT_TSAN=ON >/dev/null
	@$(CMAKE) --build build/tsan -j$(JOBS) $(TSAN_TARGETS)
	cd build/tsan && $(TSAN_RUN) ctest --output-on-failure -j$(JOBS) -L '^(monitor|platform|printserver)_tests$$'

# make test's short form: the stress test and the tests of a busy port, alone.
tsan-short: deps
	@$(CMAKE) -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVT_TSAN=ON >/dev/null
	@$(CMAKE) --build build/tsan -j$(JOBS) --target tsan_tests
	cd build/tsan && $(TSAN_RUN) ctest --output-on-failure -j$(JOBS) -L '^tsan_tests$$'

# The whole suite, in the plain build and again under the address and
# undefined-behaviour sanitizers, then the concurrency tests under the thread
# sanitizer; the Windows build first, for the DLL's checks.  The tests also
# want Wine, to run KVT64.DLL in: deps installs it when it may.
test test-linux: DEPS_FLAGS = --wine
test: win linux asan
	cd build && ctest --output-on-failure -j$(JOBS)
	cd build/asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j$(JOBS)
	@$(MAKE) --no-print-directory tsan-short

test-linux: win linux
	cd build && ctest --output-on-failure -j$(JOBS)

demo: linux
	build/bin/kvtmon demo

# The kvt backend for CUPS: installed where CUPS looks for backends, with its
# prefix in /var/lib/kvt (scripts/cups.sh says more); root or sudo.
install-cups: linux
	scripts/cups.sh install
uninstall-cups:
	scripts/cups.sh uninstall

# 1000 jobs over random transports against random faults (KVT_SOAK_SEED picks
# them): in the plain build, which also holds its resident size, and under the
# address sanitizer, whose leak check runs at the end.
SOAK = KVT_SOAK_JOBS=$${KVT_SOAK_JOBS:-1000} bin/monitor_tests --gtest_filter='Soak.*'
soak: linux asan
	cd build && $(SOAK)
	cd build/asan && ASAN_OPTIONS=detect_leaks=1 $(SOAK)

# Every fuzz target for FUZZ_SECONDS (60) each; the corpus is kept, minimised,
# in tests/fuzz/corpus/ and the figures go to bench/results/fuzz.md.
fuzz: deps
	scripts/fuzz.sh

# The whole fault matrix, every transport against every fault of kvtps (about
# two minutes); docs/faults.md is written from the run.  make test runs its
# short form.
faults: deps
	@$(CMAKE) -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@$(CMAKE) --build build -j$(JOBS) --target fault_matrix
	build/bin/fault_matrix --write docs/faults.md

bench: linux
	scripts/bench.sh

screenshots: linux
	scripts/screenshots.sh

clean:
	rm -rf build
