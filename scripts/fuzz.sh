#!/usr/bin/env bash
# Builds the fuzz targets with clang and libFuzzer (-DPELICANE_FUZZ=ON) into
# ./build-fuzz (git-ignored) and runs each one for a while, 60 seconds unless
# told otherwise. Each run starts from a scratch copy of the target's seed
# corpus (fuzz/corpus/<target>), so the repository stays as it is; the scratch
# folder keeps the corpus grown, the log and what was found.
#
#   scripts/fuzz.sh [--seconds N] [TARGET...]
#
# TARGET is one of the names below (all by default). PELICANE_FUZZ_SECONDS
# sets the time too; PELICANE_FUZZ_BUILD_DIR and PELICANE_FUZZ_WORK_DIR move
# the build and the scratch folder. Exits 1 when any target found something.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
all=(service_answer md5_cache unzip_entries multipart disc_sheet)

usage()
{
    sed -n '2,13s/^# \{0,1\}//p' "$0"
    echo "Targets: ${all[*]}"
}

seconds=${PELICANE_FUZZ_SECONDS:-60}
targets=()
while (($#)); do
    case $1 in
    --seconds) seconds=${2:?--seconds needs a number}; shift 2 ;;
    --seconds=*) seconds=${1#--seconds=}; shift ;;
    -h | --help) usage; exit 0 ;;
    -*) usage >&2; exit 2 ;;
    *)
        if [[ " ${all[*]} " != *" $1 "* ]]; then
            echo "unknown target: $1" >&2
            usage >&2
            exit 2
        fi
        targets+=("$1")
        shift
        ;;
    esac
done
if [[ ! $seconds =~ ^[1-9][0-9]*$ ]]; then
    echo "--seconds wants a whole number of seconds, not \"$seconds\"" >&2
    exit 2
fi
((${#targets[@]})) || targets=("${all[@]}")

# CI does not need these, so bootstrap.sh does not install them.
runtime=$(clang++ -print-runtime-dir 2>/dev/null || true)
if ! command -v clang++ >/dev/null || ! compgen -G "$runtime/libclang_rt.fuzzer*.a" >/dev/null; then
    echo "fuzzing needs clang and libFuzzer: apt-get install clang libclang-rt-14-dev" >&2
    exit 2
fi

build=${PELICANE_FUZZ_BUILD_DIR:-$top/build-fuzz}
work=${PELICANE_FUZZ_WORK_DIR:-$(mktemp -d "${TMPDIR:-/tmp}/pelicane-fuzz.XXXXXX")}
mkdir -p "$work"

if command -v ccache >/dev/null; then
    export CMAKE_C_COMPILER_LAUNCHER=${CMAKE_C_COMPILER_LAUNCHER:-ccache}
    export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER:-ccache}
fi
if [[ ! -f $build/CMakeCache.txt ]]; then
    cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DPELICANE_FUZZ=ON
fi
cmake --build "$build" --parallel "${PELICANE_FUZZ_JOBS:-2}" --target "${targets[@]/#/fuzz_}"

# Every sanitizer report stops the run; the targets' own files go to a tmpfs
# when there is one, as each input writes and removes a few.
export ASAN_OPTIONS=${ASAN_OPTIONS:-abort_on_error=1:detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
scratch_root=${TMPDIR:-/tmp}
if [[ -d /dev/shm && -w /dev/shm ]]; then
    scratch_root=/dev/shm
fi

found=0
summary=()
for target in "${targets[@]}"; do
    dir=$work/$target
    rm -rf "$dir"
    mkdir -p "$dir/corpus" "$dir/found"
    cp -R "$top/fuzz/corpus/$target/." "$dir/corpus/"
    tmp=$(mktemp -d "$scratch_root/pelicane-fuzz-$target.XXXXXX")
    echo "== $target: $seconds s (log: $dir/log)"
    started=$SECONDS
    set +e
    (cd "$dir" && TMPDIR=$tmp "$build/fuzz/fuzz_$target" corpus \
        -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=8192 \
        -artifact_prefix="$dir/found/" -print_final_stats=1) >"$dir/log" 2>&1
    rc=$?
    set -e
    ran=$((SECONDS - started))
    rm -rf "$tmp"
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log" | tail -n 1)
    # On a busy machine a run can stall long enough to pass for a hang: a
    # timeout counts only when its input is slow again on its own.
    stalls=0
    for slow in "$dir"/found/timeout-*; do
        [[ -e $slow ]] || continue
        if (cd "$dir" && TMPDIR=$scratch_root "$build/fuzz/fuzz_$target" -timeout=10 -runs=3 "$slow") \
            >>"$dir/log" 2>&1; then
            mv "$slow" "$dir/stall-${slow##*/timeout-}"
            stalls=$((stalls + 1))
        fi
    done
    artifacts=$(find "$dir/found" -type f | wc -l)
    if ((artifacts == 0 && (rc == 0 || stalls > 0))); then
        result="nothing found"
        ((stalls == 0)) || result+=" ($stalls timeout not repeated on a rerun: a stall of the machine)"
    else
        found=1
        result="FOUND (exit $rc): $(find "$dir/found" -type f | tr '\n' ' ')"
        grep -m 3 -E 'ERROR: |runtime error|invariant broken' "$dir/log" | sed 's/^/    /' || true
    fi
    summary+=("$(printf '%-15s %10s inputs in %3d s  %s' "$target" "${execs:-?}" "$ran" "$result")")
done

echo
echo "Fuzzing, $seconds s per target (corpora, logs and findings in $work):"
printf '  %s\n' "${summary[@]}"
exit "$found"
