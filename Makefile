# The project's front door. Every target installs what is missing first.
.PHONY: deps test tsan coverage bench demo format check-format fuzz clean

JOBS ?= $(shell nproc)

deps:
	@scripts/setup-deps

test: deps check-format
	cmake --preset dev >/dev/null
	cmake --build --preset dev -j $(JOBS)
	ctest --preset dev


tsan: deps
	cmake --preset tsan >/dev/null
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan

# Line and branch coverage of src/ over the whole suite (clang, instrumented build).
coverage: deps
	cmake --preset coverage >/dev/null
	cmake --build --preset coverage -j $(JOBS)
	scripts/run-coverage build/coverage

# The optimised build of the pxkit tool and the collector it submits to, then the demonstration.
demo: deps
	cmake --preset release >/dev/null
	cmake --build --preset release --target pxkit_cli pxkit_collector -j $(JOBS)
	build/release/tools/pxkit/pxkit demo

bench: deps
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS)
	scripts/run-benchmarks build/release

fuzz: deps
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz -j $(JOBS)
	scripts/run-fuzzers build/fuzz $(or $(FUZZ_SECONDS),60)

format:
	scripts/format --fix

check-format: deps
	scripts/format --check

clean:
	rm -rf build
