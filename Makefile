# Short commands only: CMakePresets.json has the builds, scripts/setup the packages that they need.

SETUP ?= scripts/setup

# Passed unchanged: neither make nor the shell expands it.
unexport FILE
export CRRECORD_WALK_FILE := $(value FILE)

.PHONY: help setup configure build run test test-slow coverage fuzz proof bench abi memcheck security big-endian python python-asan docs deb release-check install format clean

help:
	@echo 'make run [FILE=path]       write records of a file, read and check them, print the results'
	@echo 'make test                  run all tests but the slow ones'
	@echo 'make test-slow             build all targets, and run the slow tests'
	@echo 'make coverage              check that the tests take each branch of the library code that reads hostile bytes'
	@echo 'make fuzz [SECONDS=60]     run each fuzz target for so long, and print the results'
	@echo 'make proof                 prove that the reader in one header stays inside of its input, with Frama-C'
	@echo 'make bench [QUICK=1]       measure the library against other ways to do the same work'
	@echo 'make abi                   compare the interface of the shared library with the reviewed one'
	@echo 'make memcheck              run the tests, and the command over the golden records, under valgrind'
	@echo 'make security              run the tests that need root, two users or a second process, under AddressSanitizer'
	@echo 'make big-endian            build for a big-endian machine, and run the tests under an emulator of it'
	@echo 'make python                build the Python package into build/python/python, and test it'
	@echo 'make python-asan           build the Python package under AddressSanitizer, and test it but for crrecord.cluster'
	@echo 'make docs                  build the reference of the headers into build/docs/html'
	@echo 'make build                 build the library, the command and the tests into build/release'
	@echo 'make deb                   build Debian packages and their source package into build/deb'
	@echo 'make release-check         run all checks of a release, as root'
	@echo 'make install [PREFIX=dir]  install library and command, by default into /usr/local'
	@echo 'make format                format the sources'
	@echo 'make clean                 remove build/'

setup:
	@$(SETUP)

configure: setup
	@cmake --preset release

build: configure
	@cmake --build --preset release

run: configure
	@cmake --build --preset release --target crrecord_tool
	@scripts/walk build/release/tools/crrecord $${CRRECORD_WALK_FILE:+"$$CRRECORD_WALK_FILE"}

test: configure
	@cmake --build --preset release --target quick_tests
	@ctest --preset release

test-slow: build
	@ctest --preset slow

coverage:
	@$(SETUP) --coverage
	@scripts/coverage

fuzz:
	@$(SETUP) --ci
	@scripts/fuzz $(or $(SECONDS),60)

proof:
	@$(SETUP) --proof
	@scripts/proof

bench:
	@$(SETUP) --bench
	@cmake --preset bench
	@cmake --build --preset bench
	@scripts/bench build/bench $(if $(QUICK),--quick,$(if $(PUBLISH),--publish))

abi:
	@$(SETUP) --abi
	@cmake --preset abi
	@cmake --build --preset abi
	@tests/abi/interface.sh build/abi/src/libcrrecord.so

memcheck: build
	@$(SETUP) --memcheck
	@scripts/memcheck build/release

security: setup
	@cmake --preset asan
	@cmake --build --preset asan --target crrecord_tool security_test
	@ctest --preset asan --label-regex security

big-endian:
	@$(SETUP) --big-endian
	@scripts/big-endian

python: build
	@$(SETUP) --python
	@cmake --preset python
	@cmake --build --preset python
	@ctest --preset python

python-asan:
	@$(SETUP) --python
	@cmake --preset asan -DCRRECORD_BUILD_PYTHON=ON
	@cmake --build --preset asan --target crrecord_tool crrecord_python crrecord_python_store
	@ctest --preset asan --tests-regex '^python\.(module|document)$$'

docs:
	@$(SETUP) --docs
	@mkdir -p build/docs
	@doxygen docs/Doxyfile
	@echo 'the reference: build/docs/html/index.html'

deb:
	@scripts/deb

release-check:
	@scripts/release-check

install: build
	@cmake --install build/release $(if $(PREFIX),--prefix '$(PREFIX)')

format:
	@git ls-files -z '*.h' '*.cpp' | xargs -0 clang-format -i

clean:
	@rm -rf build
