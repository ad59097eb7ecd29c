# Thin: CMakePresets.json says how things are built, scripts/setup what they need.

SETUP ?= scripts/setup

# Handed on as it was given: neither make nor the shell looks into it.
unexport FILE
export CRRECORD_WALK_FILE := $(value FILE)

.PHONY: help setup build run test bench install format clean

help:
	@echo 'make run [FILE=path]       read a file, write its records, read and check them, show what came out'
	@echo 'make test                  run the tests'
	@echo 'make bench [QUICK=1]       measure the library against other ways to do the same work'
	@echo 'make build                 build the library and the command into build/release'
	@echo 'make install [PREFIX=dir]  install them, into /usr/local unless told otherwise'
	@echo 'make format                format the sources'
	@echo 'make clean                 remove build/'

setup:
	@$(SETUP)

build: setup
	@cmake --preset release
	@cmake --build --preset release

run: build
	@scripts/walk build/release/tools/crrecord $${CRRECORD_WALK_FILE:+"$$CRRECORD_WALK_FILE"}

test: build
	@ctest --preset release

bench:
	@$(SETUP) --bench
	@cmake --preset bench
	@cmake --build --preset bench
	@scripts/bench build/bench $(if $(QUICK),--quick,$(if $(PUBLISH),--publish))

install: build
	@cmake --install build/release $(if $(PREFIX),--prefix '$(PREFIX)')

format:
	@git ls-files -z '*.h' '*.cpp' | xargs -0 clang-format -i

clean:
	@rm -rf build
