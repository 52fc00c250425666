#!/usr/bin/env bash
# nerva's one entry point. Usage:
#   ./run.sh example          build (Release) and run the example program
#   ./run.sh test             build and run every test, then under ASan+UBSan, then checked
#   ./run.sh tsan             build and run every test under ThreadSanitizer
#   ./run.sh fuzz [SECONDS]   build the libFuzzer targets (clang) and run each SECONDS (30)
#   ./run.sh bench            build and run the benchmarks, write build/bench/report.{md,png}
#   ./run.sh install PREFIX   build (Release) and install the package into PREFIX
#   ./run.sh docs             build the reference and the guide into build/docs/html
set -euo pipefail
cd "$(dirname "$0")"

JOBS=$(nproc)
PACKAGES=(cmake g++ make libtbb-dev libopenblas64-dev libopenblas64-serial-dev libopenblas64-0-pthread googletest libgtest-dev
          libbenchmark-dev pkg-config)

ensure_packages() {
  local missing=()
  for p in "${PACKAGES[@]}" "$@"; do
    dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing missing packages: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
}

# configure DIR [cmake args...]
configure() {
  local dir=$1
  shift
  local werror=OFF
  [ -n "${CI:-}" ] && werror=ON
  cmake -S . -B "$dir" -DNERVA_WERROR=$werror "$@" >/dev/null
}

build() { cmake --build "$1" -j "$JOBS" "${@:2}"; }

run_tests() {
  local dir=$1
  ctest --test-dir "$dir" -j "$JOBS" --output-on-failure
}

cmd=${1:-}
case "$cmd" in
  example)
    ensure_packages
    configure build -DCMAKE_BUILD_TYPE=Release
    build build --target conv_layer
    ./build/examples/conv_layer "${@:2}"
    ;;
  test)
    ensure_packages
    configure build -DCMAKE_BUILD_TYPE=Release
    build build
    run_tests build
    echo "== Tests again with AddressSanitizer and UndefinedBehaviorSanitizer"
    configure build-asan -DCMAKE_BUILD_TYPE=Debug -DNERVA_SANITIZE=address,undefined \
      -DNERVA_BUILD_BENCHMARKS=OFF -DNERVA_BUILD_EXAMPLES=OFF
    build build-asan
    ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 run_tests build-asan
    echo "== Tests again in the checked build (caller errors throw std::invalid_argument)"
    configure build-checked -DCMAKE_BUILD_TYPE=Release -DNERVA_CHECKED=ON \
      -DNERVA_BUILD_BENCHMARKS=OFF -DNERVA_BUILD_EXAMPLES=OFF
    build build-checked
    run_tests build-checked
    ;;
  tsan)
    ensure_packages
    configure build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNERVA_SANITIZE=thread \
      -DNERVA_BUILD_BENCHMARKS=OFF -DNERVA_BUILD_EXAMPLES=OFF
    build build-tsan
    TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" run_tests build-tsan
    ;;
  fuzz)
    seconds=${2:-30}
    ensure_packages clang libclang-rt-14-dev
    CC=clang CXX=clang++ configure build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DNERVA_SANITIZE=address,undefined -DNERVA_BUILD_FUZZERS=ON -DNERVA_BUILD_TESTS=OFF \
      -DNERVA_BUILD_BENCHMARKS=OFF -DNERVA_BUILD_EXAMPLES=OFF
    build build-fuzz
    for f in build-fuzz/fuzz/fuzz_*; do
      [ -x "$f" ] || continue
      name=${f##*/fuzz_}
      # New inputs go to the build tree; the seeds in fuzz/corpus stay as they are.
      mkdir -p "build-fuzz/corpus/$name"
      echo "== fuzz_$name for ${seconds}s"
      "$f" -max_total_time="$seconds" -print_final_stats=1 "build-fuzz/corpus/$name" \
        "fuzz/corpus/$name" >"build-fuzz/fuzz_$name.log" 2>&1 || {
        tail -n 60 "build-fuzz/fuzz_$name.log"
        exit 1
      }
      runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "build-fuzz/fuzz_$name.log")
      echo "fuzz_$name: $runs executions in ${seconds}s, no failure"
    done
    ;;
  bench)
    ensure_packages gnuplot-nox python3
    # PyTorch is only the comparison of the convolution layers: never needed by the build, the
    # tests or the example, and the report leaves its columns empty when it cannot be installed.
    torch=yes
    ensure_packages python3-torch || torch=no
    configure build -DCMAKE_BUILD_TYPE=Release
    build build
    mkdir -p build/bench
    # Every program of bench/: the FMA peak, ResNet-50's layers, the batch-reduce product, the
    # copies, permutations, pool and GEMM, each with its JSON for the report.
    for b in build/bench/bench_*; do
      [ -x "$b" ] || continue
      echo "== $b"
      "$b" --benchmark_out="$b.json" --benchmark_out_format=json "${@:2}"
    done
    # The layer step at one thread and all cores, one layer alone, then PyTorch's conv2d on the
    # same layers and on ResNet-50's.
    layer=(--batch 16 --channels 64 --size 56x56 --out 64)
    echo "== build/examples/conv_layer ${layer[*]} --steps 20"
    ./build/examples/conv_layer "${layer[@]}" --steps 20 | tee build/bench/conv_layer.txt
    rm -f build/bench/conv_layer_one.txt build/bench/torch_conv.json build/bench/torch_resnet50.json
    echo "== build/examples/conv_layer ${layer[*]} --one --steps 20"
    ./build/examples/conv_layer "${layer[@]}" --one --steps 20 | tee build/bench/conv_layer_one.txt ||
      echo "conv_layer --one did not run: the report leaves its row out"
    # Debian's interpreter: python3-torch is not on the path of another python3 (pyenv, venv).
    if [ "$torch" = yes ]; then
      echo "== PyTorch conv2d, the example's layers"
      /usr/bin/python3 bench/layer/torch_conv.py "${layer[@]}" --json build/bench/torch_conv.json ||
        echo "PyTorch conv2d did not run: the report skips its rows"
      echo "== PyTorch conv2d, ResNet-50's layers"
      /usr/bin/python3 bench/layer/torch_resnet50.py --batch 16 --json build/bench/torch_resnet50.json ||
        echo "PyTorch conv2d did not run: the report skips its columns"
    else
      echo "python3-torch could not be installed: the report skips the PyTorch rows and columns"
    fi
    python3 bench/report/report.py build/bench
    gnuplot -e "dir='build/bench'" bench/report/report.gp
    echo "== build/bench/report.md (plot: build/bench/report.png)"
    cat build/bench/report.md
    ;;
  install)
    prefix=${2:?usage: ./run.sh install PREFIX}
    ensure_packages
    configure build -DCMAKE_BUILD_TYPE=Release
    build build --target nerva qel_permute
    cmake --install build --prefix "$prefix"
    ;;
  docs)
    PACKAGES=()  # no compiler or libraries needed here
    ensure_packages doxygen graphviz python3
    out=build/docs
    rm -rf "$out/html"
    mkdir -p "$out/pictures"
    python3 docs/pictures/make_pictures.py "$out/pictures"
    version=$(sed -n 's/^project(nerva VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
    sed -e "s|@SOURCE@|$PWD|g" -e "s|@OUTPUT@|$PWD/$out|g" -e "s|@PICTURES@|$PWD/$out/pictures|g" \
      -e "s|@VERSION@|$version|g" docs/Doxyfile.in >"$out/Doxyfile"
    # Warnings fail the build (WARN_AS_ERROR); they are printed with their location.
    doxygen "$out/Doxyfile"
    echo "== $out/html/index.html"
    ;;
  *)
    sed -n '2,9p' "$0"
    exit 2
    ;;
esac
