#!/usr/bin/env bash
# library.sh FIGURES NAME=LIBZEL.SO...: for each build, libzel.so's size as
# built and stripped (a stripped copy; the build is left alone), its
# exported dynamic symbols and its NEEDED libraries. Fails when the library
# exports anything but the Zel* entry points. Appends to FIGURES.
set -euo pipefail
figures=$1
shift
# shellcheck source-path=SCRIPTDIR source=lab.sh
source "$(dirname "$0")/lab.sh"
work=$(mktemp -d "${TMPDIR:-/tmp}/zel-library.XXXXXX")
trap 'rm -rf "$work"' EXIT

for pair in "$@"; do
    name=${pair%%=*}
    library=${pair#*=}
    [ -f "$library" ] || fail "$library is missing"
    strip --strip-all -o "$work/$name.so" "$library"
    figure library "$name: size as built" "$(stat -L -c %s "$library") bytes"
    figure library "$name: size stripped" "$(stat -c %s "$work/$name.so") bytes" \
        "strip --strip-all"
    # Every defined dynamic symbol; undefined ones are what the library uses.
    nm -D --defined-only "$library" | awk '{print $NF}' | sort >"$work/$name.exports"
    unexpected=$(grep -v '^Zel' "$work/$name.exports" || true)
    if [ -n "$unexpected" ]; then
        echo "footprint: $library exports more than Zel*:" >&2
        sed 's/^/  /' <<<"$unexpected" >&2
        exit 1
    fi
    figure library "$name: exported symbols" "$(wc -l <"$work/$name.exports")" \
        "$(paste -sd' ' "$work/$name.exports")"
    needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | paste -sd' ')
    figure library "$name: NEEDED" "$(wc -w <<<"$needed")" "$needed"
done
