#!/usr/bin/env bash
# Fails when a process that the test suite started still runs: a server in a
# test's temporary tree (its directory may be gone by now) or any program of
# the build directory given. Such a process is a bug in a test or in the
# product (a second server nobody stopped); it is named, then killed, so that
# the next step starts clean.
#
#   scripts/lib/leftovers.sh BUILD_DIR
set -uo pipefail
build=$(realpath "${1:?usage: leftovers.sh BUILD_DIR}")
tmp=$(realpath "${TMPDIR:-/tmp}")
found=()
for proc in /proc/[0-9]*; do
    pid=${proc#/proc/}
    [ "$pid" = $$ ] && continue
    state=$(sed 's/.*) \(.\).*/\1/' "$proc/stat" 2>/dev/null) || continue
    [ "$state" = Z ] && continue
    cwd=$(readlink "$proc/cwd" 2>/dev/null) || cwd=
    exe=$(readlink "$proc/exe" 2>/dev/null) || exe=
    case "$cwd" in "$tmp"/qmtest.*) found+=("$pid") && continue ;; esac
    case "$exe" in "$build"/*) found+=("$pid") ;; esac
done
[ ${#found[@]} -eq 0 ] && exit 0
echo "FAILED: processes started by the tests still run:" >&2
for pid in "${found[@]}"; do
    echo "  $pid $(tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null) (in $(readlink "/proc/$pid/cwd" 2>/dev/null))" >&2
done
kill -KILL "${found[@]}" 2>/dev/null
exit 1
