# Front door of the project. Every target installs what it needs first.
#   make run            build the gateway alone and start it on its defaults
#   make test           build everything and run the whole test suite
#   make test SAN=address|thread   the same under a sanitizer (own build folder)
#   make e2e            only the end-to-end tests
#   make bench          throughput, challenges and first byte against nginx
#   make fuzz           each fuzz target for FUZZ_SECONDS (default 120)
#   make soak           10 minutes of mixed load, then a leak check (SOAK_SECONDS=60 for less), then the
#                       siege for SIEGE_SECONDS (default 120) twice, the second time with 512 descriptors
#   make format         rewrite every C and C++ file in the house style (.clang-format)
#   make format-check   fail if a file is not in the house style (CI runs it)
#   make install        build the gateway and install it under PREFIX (/opt/media-gateway), with its
#                       service unit, configuration and log rotation (DESTDIR= for a staging root)
#   make package        build the gateway and make a Debian package of it in the build folder
JOBS ?= $(shell nproc)
SAN ?=
BUILD_TYPE ?= RelWithDebInfo

ifeq ($(SAN),)
BUILD_DIR ?= build
else
BUILD_DIR ?= build-$(SAN)
endif

PREFIX ?= /opt/media-gateway
CTEST_ARGS ?=
SOAK_SECONDS ?= 600
SIEGE_SECONDS ?= 120
FUZZ_SECONDS ?= 120

.PHONY: all deps configure build build-gateway test e2e run install package bench soak fuzz format format-check clean

all: build

deps:
	@./scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DHPW_SANITIZE=$(SAN) \
	    -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(CMAKE_OPTIONS) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

# The gateway, its plug-in and the platform libraries only: what run, install
# and package need. Its output goes to a file, shown only when the build fails.
build-gateway: configure
	@echo "Building media-gateway and its plug-in in $(BUILD_DIR) (output in $(BUILD_DIR)/build-gateway.log)"
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target media-gateway >$(BUILD_DIR)/build-gateway.log 2>&1 || \
	    { tail -n 40 $(BUILD_DIR)/build-gateway.log; echo "make: the build failed; see $(BUILD_DIR)/build-gateway.log" >&2; exit 1; }

test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) $(CTEST_ARGS)

e2e: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -L e2e $(CTEST_ARGS)

# Side by side with nginx on loopback, in a Release tree of its own (bench/RESULTS.md).
bench: BUILD_DIR = build-bench
bench: BUILD_TYPE = Release
bench: CMAKE_OPTIONS = -DHPW_BUILD_BENCH=ON
bench: build
	@./bench/run.sh $(BUILD_DIR)

# Mixed hostile load against the gateway, then checks that nothing was left
# behind; then everything an attacker can hold at once, while a client is
# served in time. Use a build without sanitizers.
soak: build
	@python3 tools/soak.py --build $(BUILD_DIR) --seconds $(SOAK_SECONDS)
	@python3 tools/siege.py --build $(BUILD_DIR) --seconds $(SIEGE_SECONDS)
	@python3 tools/siege.py --build $(BUILD_DIR) --seconds $(SIEGE_SECONDS) --descriptors 512

# libFuzzer targets (clang) over the parsers, each for FUZZ_SECONDS, in build-fuzz.
fuzz:
	@HPW_EXTRA_PACKAGES="clang libclang-rt-14-dev" ./scripts/install-deps.sh
	@./fuzz/run.sh build-fuzz $(FUZZ_SECONDS)

# The house style is .clang-format's; every tracked C and C++ file follows it.
FORMAT_FILES = git ls-files -z '*.c' '*.cpp' '*.h'

format: deps
	@$(FORMAT_FILES) | xargs -0 clang-format -i

format-check: deps
	@$(FORMAT_FILES) | xargs -0 clang-format --dry-run --Werror

run: build-gateway
	@./tools/run-gateway.sh $(BUILD_DIR)

install: build-gateway
	@DESTDIR=$(DESTDIR) cmake --install $(BUILD_DIR)

package: build-gateway
	@cd $(BUILD_DIR) && cpack -G DEB

clean:
	rm -rf build build-address build-thread build-bench build-fuzz
