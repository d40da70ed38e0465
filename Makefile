# Front door of the Quorvex build. Each target installs the Debian packages
# it needs when they are missing, configures with CMake and builds.
#
#   make demo                    build an index of a real dictionary and search it
#   make                         optimised build in build/
#   make test                    the whole suite, normal and sanitized builds
#   make bench                   the benchmarks, optimised, in build/
#   make install PREFIX=/opt/q   install the library, headers and packages

BUILD_DIR    ?= build
SANITIZE_DIR ?= build-sanitize
PREFIX       ?= /usr/local
JOBS         ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS   ?=

BUILD_PACKAGES := cmake make g++ gcc binutils libgtest-dev pkg-config \
                  libcli11-dev nlohmann-json3-dev zlib1g-dev valgrind
BENCH_PACKAGES := libbenchmark-dev

ENSURE := scripts/ensure-packages

.PHONY: all build configure test test-sanitize bench demo install clean

all: build

configure:
	@$(ENSURE) $(BUILD_PACKAGES)
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=Release -DQUORVEX_WERROR=ON $(CMAKE_ARGS)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)
	$(MAKE) --no-print-directory test-sanitize

# The same suite built with AddressSanitizer and UndefinedBehaviorSanitizer.
test-sanitize:
	@$(ENSURE) $(BUILD_PACKAGES)
	cmake -S . -B $(SANITIZE_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUORVEX_SANITIZE=ON -DQUORVEX_WERROR=ON $(CMAKE_ARGS)
	cmake --build $(SANITIZE_DIR) -j $(JOBS)
	ctest --test-dir $(SANITIZE_DIR) --output-on-failure -j $(JOBS)

demo: build
	scripts/demo.sh $(BUILD_DIR)

# BENCH_ARGS passes options to the benchmark programs, for example
# BENCH_ARGS=--benchmark_filter=Empty
bench:
	@$(ENSURE) $(BUILD_PACKAGES) $(BENCH_PACKAGES)
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=Release -DQUORVEX_WERROR=ON -DQUORVEX_BUILD_BENCH=ON $(CMAKE_ARGS)
	cmake --build $(BUILD_DIR) -j $(JOBS)
	$(BUILD_DIR)/bench/quorvex_bench_writer $(BENCH_ARGS)
	$(BUILD_DIR)/bench/quorvex_bench_reader $(BENCH_ARGS)

install: build
	cmake --install $(BUILD_DIR) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR)
