# Front door of the project. Every target installs what it needs first.
#   make run            build and start the reference gateway on its defaults
#   make test           build and run the whole test suite
#   make test SAN=address|thread   the same under a sanitizer (own build folder)
#   make e2e            only the end-to-end tests
JOBS ?= $(shell nproc)
SAN ?=
BUILD_TYPE ?= RelWithDebInfo

ifeq ($(SAN),)
BUILD_DIR ?= build
else
BUILD_DIR ?= build-$(SAN)
endif

CTEST_ARGS ?=

.PHONY: all deps configure build test e2e run clean

all: build

deps:
	@./scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DHPW_SANITIZE=$(SAN) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) $(CTEST_ARGS)

e2e: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -L e2e $(CTEST_ARGS)

run: build
	@./tools/run-gateway.sh $(BUILD_DIR)

clean:
	rm -rf build build-address build-thread
