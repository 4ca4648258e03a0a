# Thin doors to CMake. Every target installs the packages it needs, configures and builds by itself.
#
#   make demo       the router's main job on real packets, with a table of what arrived
#   make test       every test: unit, system, fuzz
#   make bench      the figures of docs/performance.md
#   make package    a Debian package, in build/package
#   make coverage   line coverage of corvalin_lib and router
#   make check      what a review wants to be green: format, lint, debug, asan, tsan

.PHONY: all demo test bench package coverage check format clean

all: demo test

demo test bench package coverage check format:
	@tools/make/$@.sh

clean:
	rm -rf build
