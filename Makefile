# Shortcuts over the scripts and CMake presets.
#
#   make demo    install the Debian packages, build, and run scripts/demo.sh
#   make build   install the Debian packages and build into build/default
#   make test    scripts/test.sh: build and run every test
#   make deb     build the Debian package (build/default/faitra_*.deb)
#   make bench   build the benchmarks (build/bench) and write docs/performance.md
#   make clean   remove build/default

BUILD_DIR := build/default

.PHONY: all deps build test bench demo deb clean

all: build

deps:
	scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD_DIR) -j$$(nproc)

test:
	scripts/test.sh

bench:
	scripts/install-deps.sh --bench
	cmake --preset bench
	cmake --build --preset bench -j$$(nproc)
	python3 bench/run.py --build build/bench --docs docs

deb: build
	cd $(BUILD_DIR) && cpack -G DEB

demo: build
	FAITRA=$(BUILD_DIR)/apps/faitra scripts/demo.sh

clean:
	rm -rf $(BUILD_DIR)
