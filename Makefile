# make demo: install what is missing, build, run the demo on the embedded default.
# make test: install what is missing, build, run every test (unit, integration, export
#            list, tool), the same suites under address and undefined sanitizers and under
#            the thread sanitizer, and a short run of every fuzz target.
# make test-armhf: cross-build for 32-bit ARM and run every suite under qemu-arm.
# make test-long: build, then the long runs alone (ctest label "long"; the presets leave them out).
# make package: build, then the Debian packages (runtime, -dev, tools) in build/$(PRESET); docs/packages.md.
PRESET ?= default
FUZZ_SECONDS ?= 20

.PHONY: all deps configure build demo test test-asan test-tsan test-armhf test-long fuzz bench package clean

all: build

deps:
	@scripts/install-deps

configure: deps
	cmake --preset $(PRESET) >/dev/null

build: configure
	cmake --build --preset $(PRESET)

demo: build
	scripts/demo build/$(PRESET)

test: build fuzz test-asan test-tsan
	ctest --preset $(PRESET) -j2

# The long end-to-end runs: 100 server restarts and 60 s of churn at 10,000 changes/s.
test-long: build
	ctest --preset long

# Every suite under address and undefined sanitizers, then under the thread sanitizer.
test-asan: deps
	$(MAKE) --no-print-directory PRESET=asan build
	ctest --preset asan -j2

test-tsan: deps
	$(MAKE) --no-print-directory PRESET=tsan build
	ctest --preset tsan -j2

# The armhf sysroot comes from Debian's armhf packages (scripts/armhf-sysroot); the suites run
# under qemu-arm, their time limits scaled by the preset's PMX_TEST_TIME_SCALE.
test-armhf: deps
	scripts/armhf-sysroot
	$(MAKE) --no-print-directory PRESET=armhf build
	@file -L build/armhf/app/libpmx.so | sed 's|^.*/||'
	ctest --preset armhf -j2

fuzz: deps
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz
	scripts/run-fuzz build/fuzz $(FUZZ_SECONDS)

bench: build
	scripts/run-bench build/$(PRESET)

package: build
	cd build/$(PRESET) && cpack -G DEB

clean:
	rm -rf build
