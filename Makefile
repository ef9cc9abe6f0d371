# The front door. CMake builds the library, Maven the Java side; every target below does its own
# set-up first, and a step whose inputs have not changed is not repeated.
#
# Variables:
#   ARGS           passed on to the demo or to the Java benchmarks
#   JOBS           parallel jobs (default: all cores)
#   JEMALLOC_ROOT  a ready je-prefixed jemalloc 5, instead of one built from Debian's source
#   SECONDS, SEED  length and random seed of a stress; SECONDS also of fuzz
#   MODE, TEST     jcstress: sanity, quick, default, tough or stress; a pattern of test names
#   MINUTES        length of the soak, which takes SEED as well
#   JDKS, COLLECTORS  what test-gc runs on (default: all there are)
#   SETUP=no       skips the installation of Debian packages

SHELL := /bin/bash
.SHELLFLAGS := -euo pipefail -c
.DEFAULT_GOAL := help
.NOTPARALLEL:
.DELETE_ON_ERROR:
MAKEFLAGS += --no-print-directory

ARGS ?=
SECONDS ?= 60
SEED ?=
MODE ?= quick
TEST ?= .*
MINUTES ?= 30
SETUP ?= yes
JOBS ?= $(shell nproc)
JEMALLOC_ROOT ?= $(CURDIR)/build/jemalloc
export JOBS

.PHONY: help
help: ## list the targets
	@echo 'Targets:'
	@sed -n 's/^\([a-z-]*\):.*## /\1\t/p' $(MAKEFILE_LIST) | expand -t 20 | sed 's/^/  /'
	@echo 'Variables:'
	@sed -n 's/^#   \([A-Z_]*\)/  \1/p' $(MAKEFILE_LIST)

# ---- set-up ---------------------------------------------------------------------------------

.PHONY: setup setup-check jemalloc
setup: ## install missing Debian packages (root or sudo) and build jemalloc
setup: packages jemalloc

.PHONY: packages
packages:
ifneq ($(SETUP),no)
	@tools/setup.sh
endif

setup-check:
ifneq ($(SETUP),no)
	@tools/setup.sh check
endif

peers-setup:
ifneq ($(SETUP),no)
	@tools/setup.sh peers
endif

jemalloc: packages
ifeq ($(JEMALLOC_ROOT),$(CURDIR)/build/jemalloc)
	@tools/build_jemalloc.sh
endif

# ---- build ----------------------------------------------------------------------------------

.PHONY: build native java
build: ## build build/libnimbra.so and the Java artifacts
build: java

native: build/release/build.ninja
	@cmake --build --preset release --parallel $(JOBS)

java: native
	@tools/build_java.sh

# Ninja runs CMake again by itself when a CMakeLists.txt changes, but knows nothing of presets.
build/%/build.ninja: CMakePresets.json | setup
	@cmake --preset $* -DJEMALLOC_ROOT="$(JEMALLOC_ROOT)" --log-level=WARNING >/dev/null
	@touch $@

# ---- work -----------------------------------------------------------------------------------

.PHONY: test test-native stress stress-overflow jcstress demo demo-diagnostics demo-overflow bench bench-native bench-pauses bench-peers bench-scale bench-stores check format soak fuzz test-gc sbom dependencies
test: ## run the native and the Java tests
test: native build/debug/build.ninja
	@tools/test.sh all

test-native: ## run the native tests only
test-native: build/debug/build.ninja
	@tools/test.sh native

stress: ## every native at once under the thread sanitizer for an hour (SECONDS=N, SEED=N)
stress: build/tsan/build.ninja
	@tools/stress.sh $(if $(filter command,$(firstword $(origin SECONDS))),$(SECONDS),3600) $(SEED)

test-gc: ## run the Java tests on every JDK with every collector, JNI checked (10 to 60 minutes)
test-gc: native
	@tools/test_gc.sh

stress-overflow: ## use two maps in every way while values go to disk (SECONDS=N, SEED=N)
stress-overflow: native
	@tools/stress_overflow.sh $(SECONDS) $(SEED)

jcstress: ## race pairs of Java calls where they meet native memory (MODE=quick, TEST=PATTERN)
jcstress: native
	@tools/jcstress.sh '$(MODE)' '$(TEST)'

soak: ## use everything for half an hour and compare the end with the start (MINUTES=N, SEED=N)
soak: native
	@tools/soak.sh $(MINUTES) $(SEED)

fuzz: ## run every fuzz target for a while (SECONDS=N for each)
fuzz: setup-check native build/fuzz/build.ninja
	@tools/fuzz.sh $(SECONDS)

sbom: ## write the bills of materials of a release to build/sbom
sbom: java
	@JEMALLOC_ROOT="$(JEMALLOC_ROOT)" tools/sbom.sh

dependencies: ## compare all that Maven fetches with java/dependencies.sha256
dependencies: native
	@JEMALLOC_ROOT="$(JEMALLOC_ROOT)" tools/dependencies.sh check

demo: ## keep every class file of the JDK off heap and check each byte (ARGS="--input DIR")
demo: java
	@tools/demo.sh $(ARGS)

demo-diagnostics: ## plant a leaked pin and a slow phase, and find both
demo-diagnostics: java
	@tools/demo.sh diagnostics

demo-overflow: ## keep 1 GiB of values in 256 MiB of memory and on disk (ARGS="--seconds N")
demo-overflow: java
	@tools/demo.sh overflow $(ARGS)

bench: ## run the native and the Java benchmarks (ARGS: options for the Java ones)
bench: java
	@tools/bench.sh $(ARGS)

bench-native: ## the native roads beside their floors, instructions counted (ARGS="--quick --docs DIR")
bench-native: native
	@SETUP=$(SETUP) tools/bench_native.sh $(ARGS)

bench-pauses: ## pauses and response times with GiB of live entries (ARGS="--gigabytes N --docs DIR")
bench-pauses: java
	@tools/bench_pauses.sh $(ARGS)

bench-stores: ## measure stores for values on disk (ARGS="--values N --rounds N")
bench-stores: java
	@tools/bench_stores.sh $(ARGS)

bench-peers: ## measure the map beside OHC, Chronicle Map, Ehcache, Infinispan and others (ARGS=--quick)
bench-peers: java peers-setup
	@tools/bench_peers.sh peers $(ARGS)

bench-scale: ## measure get, put and memory from 10,000 to 10,000,000 entries (ARGS=--quick)
bench-scale: java peers-setup
	@cmake --build --preset bench --parallel $(JOBS)
	@tools/bench_peers.sh scale $(ARGS)

check: ## formatting, clang-tidy, the native tests under the sanitizers, and a short stress
check: setup-check build/debug/build.ninja build/asan/build.ninja build/tsan/build.ninja
	@tools/check.sh

format: ## rewrite the sources as make check wants them
format: setup-check
	@clang-format -i $(wildcard src/*.h src/*.cpp tests/*.h tests/*.cpp bench/*.h bench/*.cpp fuzz/*.h fuzz/*.cpp)
	@tools/mvn.sh spotless:apply

# ---- cleaning -------------------------------------------------------------------------------

.PHONY: clean distclean
clean: ## remove what was built, except jemalloc
	@if [ -d build ]; then find build -mindepth 1 -maxdepth 1 ! -name 'jemalloc*' -exec rm -rf {} +; fi
	@find java -type d -name target -prune -exec rm -rf {} +

distclean: ## remove everything that was built, jemalloc too
distclean: clean
	@rm -rf build
