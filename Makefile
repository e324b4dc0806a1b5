# make demo: install what is missing, build, run the demo on the embedded default.
# make test: install what is missing, build, run every test (unit, integration, export
#            list, tool), the same suites under address and undefined sanitizers, and a
#            short fuzz run.
PRESET ?= default
FUZZ_SECONDS ?= 60

.PHONY: all deps configure build demo test test-tsan fuzz bench clean

all: build

deps:
	@scripts/install-deps

configure: deps
	cmake --preset $(PRESET) >/dev/null

build: configure
	cmake --build --preset $(PRESET)

demo: build
	scripts/demo build/$(PRESET)

test: build fuzz
	$(MAKE) --no-print-directory PRESET=asan build
	ctest --preset asan -j2
	ctest --preset $(PRESET) -j2

# The same suites under the thread sanitizer (make test already runs them under asan).
test-tsan: deps
	$(MAKE) --no-print-directory PRESET=tsan build
	ctest --preset tsan -j2

fuzz: deps
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz
	scripts/run-fuzz build/fuzz $(FUZZ_SECONDS)

bench: build
	scripts/run-bench build/$(PRESET)

clean:
	rm -rf build
