# The two commands of the project: `make run` and `make test`. Both install missing Debian packages first.
.PHONY: run test deps build release asan debug bench format clean

ARGS ?=

deps:
	@./scripts/install-deps.sh

release: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release

asan: deps
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan

debug: deps
	@cmake --preset debug >/dev/null
	@cmake --build --preset debug

build: release

run: release
	./build/release/app/ostrel $(ARGS)

# Release build with g++ (warnings as errors) and its tests, then the clang build with
# AddressSanitizer and UndefinedBehaviorSanitizer, its tests and a short run of every fuzzer.
test: release asan
	ctest --preset release -j2
	ctest --preset asan -j2

bench: release
	@for b in build/release/bench/bench_*; do echo "== $$b"; $$b; done

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build
