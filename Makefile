# SPDX-License-Identifier: Apache-2.0
#
# Short names for what one does with a fresh clone. Each installs the Debian packages that are missing. The build itself
# is CMake's.
BUILD = build
JOBS = $(shell nproc)
FLIGHTS = examples/data/flights.csv

.PHONY: help demo test proof bench clean

help:
	@echo 'make demo    build the library and the examples, and ask them about real flights; FLIGHTS=file.csv for others'
	@echo 'make test    build everything and run all tests'
	@echo 'make proof   build everything, check all promises and write docs/proof.md'
	@echo 'make bench   measure the kernels'
	@echo 'make clean   remove $(BUILD)/'

demo:
	tools/setup.sh demo
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD) --target kdzk-ask --target kdzk_sqlite --parallel $(JOBS)
	$(BUILD)/examples/kdzk-ask --demo examples/data
	examples/sqlite/demo.sh $(BUILD)/examples/sqlite/kdzk.so $(FLIGHTS)

test:
	tools/setup.sh test
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=ON
	cmake --build $(BUILD) --parallel $(JOBS)
	ctest --test-dir $(BUILD) --output-on-failure --parallel $(JOBS)

proof:
	tools/setup.sh test
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=ON
	CMAKE_BUILD_PARALLEL_LEVEL=$(JOBS) tools/proof.sh $(BUILD)

bench:
	tools/setup.sh bench
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release
	cmake --build $(BUILD) --target run_bench --parallel $(JOBS)

clean:
	rm -rf $(BUILD)
