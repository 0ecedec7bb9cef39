# Thin wrapper over the CMake presets. `make test` and `make demo` work on a fresh machine.
.PHONY: deps demo test fuzz bench format format-check dev clean

EXAMPLE := examples/sakura.nsproj

deps:
	@bash scripts/install-deps.sh

demo: deps
	cmake --preset release >/dev/null
	cmake --build --preset release --target melvo stand_in_engine
	@mkdir -p out
	./build/release/bin/melvo info $(EXAMPLE)
	./build/release/bin/melvo lyric さくら きゃっ 今日
	./build/release/bin/melvo convert $(EXAMPLE) out/sakura.musicxml
	./build/release/bin/melvo convert $(EXAMPLE) out/sakura.mid
	@echo "demo: wrote out/sakura.musicxml and out/sakura.mid"
	@rm -rf out/render
	@# The stand-in engine is installed like a user's engine folder, apart from the build.
	@engine=$$(mktemp -d) && trap 'rm -rf "$$engine"' EXIT && \
	  cp -r build/release/stand-in-engine/. "$$engine" && \
	  echo "demo: stand-in engine installed in $$engine" && \
	  mix=$$(MELVO_HOME=$(CURDIR)/out/home ./build/release/bin/melvo render $(EXAMPLE) \
	    --engine "$$engine" --out out/render) && \
	  echo "demo: rendered the example song to $$mix"

test: deps format-check
	cmake --preset ci >/dev/null
	cmake --build --preset ci
	ctest --preset ci

# Every parser of outside bytes has a libFuzzer target in fuzz/; each runs FUZZ_SECONDS (30).
fuzz: deps
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz
	bash scripts/run-fuzz.sh

dev: deps
	cmake --preset dev >/dev/null
	cmake --build --preset dev
	ctest --preset dev

bench: deps
	cmake --preset release >/dev/null
	cmake --build --preset release
	@for b in build/release/bin/bench_*; do echo "== $$b"; "$$b" --benchmark_counters_tabular=true || exit 1; done

format:
	@git ls-files -z '*.cpp' '*.h' | xargs -0 -r clang-format -i

format-check:
	@bash scripts/check-format.sh

clean:
	rm -rf build out
