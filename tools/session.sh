# shellcheck shell=bash
# What ./demo, tools/endurance and tools/restarts share, to be sourced in the root of the repository with
# "set -euo pipefail": the build, and a tracing service and a launcher of their own, which end with the script.

readonly me=${0##*/}
# The service and the tools always run natively.
readonly bin=build/release/bin
service=$(tools/setup --print-sdk)/bin
work=$(mktemp -d)
processes=()
finish() {
    ((${#processes[@]} == 0)) || kill "${processes[@]}" 2>/dev/null || true
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap finish EXIT

# give_up MESSAGE: ends the script, with what its programs have printed.
give_up() {
    echo "$me: $1" >&2
    cat "$work"/*.log >&2
    exit 1
}

# wait_for MESSAGE COMMAND...: gives up with the message when the command does not succeed within twenty seconds.
wait_for() {
    local message=$1
    shift
    for _ in {1..200}; do
        if "$@"; then
            return
        fi
        sleep 0.1
    done
    give_up "$message"
}

build() { cmake --preset "$1" && cmake --build --preset "$@"; }

# build_all PRESET [TARGET...]: sets the machine up, and builds the tools and the further targets natively, and what
# they watch in the preset.
build_all() {
    local preset=$1 variants=(native) log=out/$me-build.log
    shift
    [[ $preset == release ]] || variants+=("$preset")
    mkdir -p out
    if [[ -x $service/traced ]]; then
        tools/setup "${variants[@]}"
    else
        tools/setup tools
        # Nothing of the tracing service is in the tools, and making it leaves a core idle for a good part of the time.
        # Where their build fails, it is told below.
        (
            cmake --preset release -DCOUNTERFEED_DEVICE=OFF
            exec nice ninja -C build/release -j 2 counterfeed-counters counterfeed-report
        ) >"$log" 2>&1 &
        processes=($!)
        tools/setup "${variants[@]}"
        wait "${processes[0]}" || true
        processes=()
    fi
    echo "Building the library, the launcher and the virtual GPU ..."
    local targets=(report counters "$@") watched=(counterfeed launcher virtual_gpu_preload)
    [[ $preset != release ]] || targets+=("${watched[@]}")
    if ! { build release --target "${targets[@]}" &&
        { [[ $preset == release ]] || build "$preset" --target "${watched[@]}"; }; } >"$log" 2>&1; then
        tail -n 20 "$log" >&2
        echo "$me: the build failed; the whole log is $log" >&2
        exit 1
    fi
}

is_offered() {
    kill -0 "$producer" 2>/dev/null || give_up "the launcher ended"
    service_has_counters
}

service_has_counters() {
    "$service/perfetto" --query-raw >"$work/state" 2>"$work/query.log" &&
        "$bin/counterfeed-report" --offered "$work/state" >"$work/offered" 2>/dev/null
}

# start PRESET GPU: the service, and the launcher as on a device, until its counters are offered. The virtual GPU stands
# in for the kernel driver, and leaves a note of what it is in $work/gpu. Sets `producer` to the launcher's process.
start() {
    local build=$PWD/build/$1
    export PERFETTO_PRODUCER_SOCK_NAME=$work/producer PERFETTO_CONSUMER_SOCK_NAME=$work/consumer
    "$service/traced" >"$work/traced.log" 2>&1 &
    processes+=($!)
    wait_for "the tracing service did not start" test -S "$work/consumer"

    local preload=LD_PRELOAD=$build/lib/libvirtual_gpu.so
    local launch=(env "$preload")
    case $1 in  # the emulator itself can't load the library
        arm) launch=(qemu-arm -E "$preload") ;;
        android) launch=(tools/android_device "${COUNTERFEED_ANDROID_KIT-}" --log -E "$preload") ;;
    esac
    VIRTUAL_GPU=$2 VIRTUAL_GPU_SEAM=$work/gpu \
        "${launch[@]}" "$build/bin/counterfeed-launcher" >"$work/launcher.log" 2>&1 &
    producer=$!
    processes+=("$producer")
    wait_for "no counters were offered" is_offered
}
