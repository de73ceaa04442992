# Shared by the scripts beside it: where things are, how packages come, how a step is run and told.
# Sourced, not run. Every step writes its output to build/logs/NAME.log and shows it only when it failed.

set -euo pipefail
export LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive
self=$(realpath "$0")
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
cd "$root"
logs=$root/build/logs
mkdir -p "$logs"

as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

die() {
    echo "$(basename "$0"): $*" >&2
    exit 1
}

# usage ARGUMENT: ends the script with the comment at its head, as the answer to --help or to an argument it does not know.
usage() {
    local text
    text=$(sed -n '2,${/^#/!q;s/^# \{0,1\}//p}' "$self")
    if [ "$1" = --help ]; then
        echo "$text"
        exit 0
    fi
    echo "$(basename "$0"): unknown argument: $1"$'\n'"$text" >&2
    exit 1
}

# step NAME TEXT COMMAND…: one line with the time taken; on failure the end of the log and where the whole of it lies. The
# first failing line of COMMAND ends it. The shell heeds that only outside conditions: so neither `if step` nor `step ||`, here
# or in a caller, but the status afterwards.
step() {
    local name=$1 text=$2 begin=$SECONDS status=0 before=+e
    shift 2
    printf '%-58s' "$text"
    case $- in *e*) before=-e ;; esac
    set +e
    (
        set -e
        "$@"
    ) >"$logs/$name.log" 2>&1 </dev/null
    status=$?
    set $before
    if [ $status = 0 ]; then
        printf 'ok   %4d s\n' $((SECONDS - begin))
        return 0
    fi
    printf 'FAILED (exit %d) after %d s\n' $status $((SECONDS - begin))
    echo "--- the end of build/logs/$name.log:"
    tail -n "${STEP_TAIL:-60}" "$logs/$name.log"
    echo "---"
    return $status
}

# package_list SECTION…: the packages of those sections of scripts/packages.
package_list() {
    local section
    for section in "$@"; do
        sed -n "/^\[$section\]/,/^\[/p" "$root/scripts/packages" | grep -v '^[[#]' || true
    done
}

node_is_here() {
    command -v npm >/dev/null && command -v node >/dev/null && [ "$(node -p 'process.versions.node.split(".")[0]')" -ge 18 ]
}

missing_packages() {
    local name
    for name in $(package_list "$@"); do
        dpkg-query -W -f='${Status}\n' "$name" 2>/dev/null | grep -q '^install ok installed' || echo "$name"
    done
    node_is_here || echo nodejs npm
}

# install_packages SECTION…: installs what is missing, and says nothing when nothing is.
install_packages() {
    local missing
    command -v dpkg-query >/dev/null || die "this script installs Debian packages; on another system install these yourself: $(package_list "$@" | tr '\n' ' ')"
    missing=$(missing_packages "$@" | tr '\n' ' ')
    [ -n "$missing" ] || return 0
    if [ "$(id -u)" != 0 ] && ! command -v sudo >/dev/null; then
        die "these packages are missing and only root can install them: $missing"
    fi
    step packages "installing $(echo "$missing" | wc -w) Debian packages" install_now "$missing"
}

install_now() {
    as_root apt-get update
    # shellcheck disable=SC2086
    as_root apt-get install -y --no-install-recommends $1
}

# The chart library and the browser driver, as package-lock.json pins them.
install_node_modules() {
    if [ node_modules/.package-lock.json -nt package-lock.json ]; then return 0; fi
    step npm "installing the pinned npm packages" npm ci --ignore-scripts --no-audit --no-fund
}

# build_preset PRESET [TARGET…]
build_preset() {
    local preset=$1
    shift
    cmake --preset "$preset"
    cmake --build --preset "$preset" --parallel "${BUILD_JOBS:-$(nproc)}" ${1:+--target "$@"}
}

build_benchmarks() {
    cmake --preset release -DQEL_BUILD_BENCHMARKS=ON
    cmake --build --preset release --parallel "$(nproc)"
}
