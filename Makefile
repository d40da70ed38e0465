# Front door of the Quorvex build. Each target installs the Debian packages
# it needs when they are missing, configures with CMake and builds.
#
#   make demo                    build an index of a real dictionary and search it
#   make                         optimised build in build/
#   make test                    the whole suite, normal and sanitized builds
#   make python                  the Python module, in build/python
#   make mutate                  plant faults one at a time; which tests catch each
#   make bench                   the benchmarks, optimised, in build/
#   make install PREFIX=/opt/q   install the library, headers and packages

BUILD_DIR    ?= build
SANITIZE_DIR ?= build-sanitize
THREAD_DIR   ?= build-tsan
PREFIX       ?= /usr/local
JOBS         ?= $(shell nproc 2>/dev/null || echo 2)
# Debian's interpreter, which Debian's pybind11 and pytest belong to.
PYTHON       ?= /usr/bin/python3
CMAKE_ARGS   ?=

BUILD_PACKAGES := cmake make g++ gcc binutils libgtest-dev pkg-config \
                  libcli11-dev nlohmann-json3-dev zlib1g-dev valgrind help2man
BENCH_PACKAGES := libbenchmark-dev
# The real dictionaries some tests search, and the Unicode data the folding
# tables are checked against; without them those tests are skipped.
TEST_PACKAGES  := dict-freedict-deu-eng dict-gcide unicode-data
# The Python module, its tests and `pip install .`.
PYTHON_PACKAGES := pybind11-dev python3-dev python3-pytest python3-pip python3-setuptools python3-venv

ENSURE := scripts/ensure-packages

.PHONY: all build configure test test-sanitize test-thread bench demo install clean python mutate

all: build

configure:
	@$(ENSURE) $(BUILD_PACKAGES)
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=Release -DQUORVEX_WERROR=ON -DPYTHON_EXECUTABLE=$(PYTHON) $(CMAKE_ARGS)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test:
	@$(ENSURE) $(TEST_PACKAGES) $(PYTHON_PACKAGES) || echo "some of $(TEST_PACKAGES) $(PYTHON_PACKAGES) could not be installed; the tests that need them will be skipped"
	$(MAKE) --no-print-directory build
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)
	$(MAKE) --no-print-directory test-sanitize
	$(MAKE) --no-print-directory test-thread

# Concurrent searches on one reader, built with ThreadSanitizer.
test-thread:
	@$(ENSURE) $(BUILD_PACKAGES)
	cmake -S . -B $(THREAD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUORVEX_SANITIZE_THREAD=ON -DQUORVEX_BUILD_PYTHON=OFF \
	  -DQUORVEX_BUILD_TOOLS=OFF -DQUORVEX_WERROR=ON $(CMAKE_ARGS)
	cmake --build $(THREAD_DIR) -j $(JOBS) --target ConcurrentSearchTest
	ctest --test-dir $(THREAD_DIR) --output-on-failure -R ConcurrentSearch

# The same suite built with AddressSanitizer and UndefinedBehaviorSanitizer.
test-sanitize:
	@$(ENSURE) $(BUILD_PACKAGES)
	@$(ENSURE) $(TEST_PACKAGES) || echo "$(TEST_PACKAGES) could not be installed; the tests that need it will be skipped"
	cmake -S . -B $(SANITIZE_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUORVEX_SANITIZE=ON -DQUORVEX_WERROR=ON \
	  -DPYTHON_EXECUTABLE=$(PYTHON) $(CMAKE_ARGS)
	cmake --build $(SANITIZE_DIR) -j $(JOBS)
	ctest --test-dir $(SANITIZE_DIR) --output-on-failure -j $(JOBS)

demo: build
	scripts/demo.sh $(BUILD_DIR)

# The Python module in $(BUILD_DIR)/python: PYTHONPATH=$(BUILD_DIR)/python
# imports it from there. To install it, see README.md, "Python".
python:
	@$(ENSURE) $(BUILD_PACKAGES) $(PYTHON_PACKAGES)
	$(MAKE) --no-print-directory build
	@echo "built: PYTHONPATH=$(BUILD_DIR)/python $(PYTHON) -c 'import quorvex'"

# BENCH_ARGS passes options to the benchmark programs, for example
# BENCH_ARGS=--benchmark_filter=Empty
bench:
	@$(ENSURE) $(BUILD_PACKAGES) $(BENCH_PACKAGES)
	@$(ENSURE) libsqlite3-dev libdivsufsort-dev gnuplot-nox dict-freedict-deu-eng dict-freedict-jpn-eng dict-gcide
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=Release -DQUORVEX_WERROR=ON -DQUORVEX_BUILD_BENCH=ON $(CMAKE_ARGS)
	cmake --build $(BUILD_DIR) -j $(JOBS)
	$(BUILD_DIR)/bench/quorvex_bench_writer $(BENCH_ARGS)
	$(BUILD_DIR)/bench/quorvex_bench_reader $(BENCH_ARGS)
	scripts/bench-compare.sh $(BUILD_DIR)

# The planted faults of scripts/mutate.py, each built and tested in
# /tmp/quorvex-mutate; fails when a fault goes uncaught.
mutate:
	@$(ENSURE) $(BUILD_PACKAGES) $(PYTHON_PACKAGES)
	@$(ENSURE) $(TEST_PACKAGES) || echo "$(TEST_PACKAGES) could not be installed; the tests that need it will be skipped"
	$(PYTHON) scripts/mutate.py

install: build
	cmake --install $(BUILD_DIR) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR) $(THREAD_DIR) build-fuzz build-pip python/quorvex.egg-info

# libFuzzer runs of the targets in fuzz/ (see fuzz/README.md), built with
# clang in build-fuzz/: each target runs FUZZ_SECONDS on its corpus in
# fuzz/corpus/TARGET/, which keeps the new inputs it finds. A failing input
# is saved in fuzz/crashers/TARGET/ and stops the run.
FUZZ_SECONDS ?= 60
FUZZ_PACKAGES := cmake make clang clang-14 libclang-rt-14-dev
FUZZ_TARGETS := verify_then_search build_and_compare mapped_open_search

.PHONY: fuzz
fuzz:
	@$(ENSURE) $(FUZZ_PACKAGES)
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DQUORVEX_FUZZ=ON -DQUORVEX_BUILD_TOOLS=OFF -DQUORVEX_BUILD_TESTS=OFF -DQUORVEX_BUILD_PYTHON=OFF $(CMAKE_ARGS)
	cmake --build build-fuzz -j $(JOBS) --target $(FUZZ_TARGETS:%=fuzz_%)
	@set -e; for target in $(FUZZ_TARGETS); do \
	  mkdir -p fuzz/crashers/$$target; \
	  echo "fuzzing $$target for $(FUZZ_SECONDS) s"; \
	  build-fuzz/fuzz/fuzz_$$target -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 -timeout=60 \
	    -artifact_prefix=fuzz/crashers/$$target/ fuzz/corpus/$$target; \
	done
