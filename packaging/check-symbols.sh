#!/usr/bin/env bash
# Compares what the built libraries export with the lists in packaging/symbols, so that the interface changes on purpose
# alone; and looks at what the program sdconfig needs.
#     packaging/check-symbols.sh BUILD-DIR [--accept]        --accept writes the lists anew
set -euo pipefail
export LC_ALL=C
build=$(realpath "${1:?usage: packaging/check-symbols.sh BUILD-DIR [--accept]}")
cd "$(dirname "$0")/symbols"

# The names that are defined once, and the classes' tables. Other weak ones are inline functions and templates, which
# come and go with the compiler and its options, as do members of what a class hides (State).
exported() {
    nm -DC --defined-only "$1" | cut -c18- | grep -E '^([TDBR] |V vtable for )' | cut -c3- |
        grep -vE '^vtable for std::|::State::' | sed -f plain-names.sed | sort -u
}

failed=0
interface=same
for library in libsdconfig platform/sdbus platform/sdsecurity platform/velmarlog; do
    name=lib${library##*/}
    name=${name/#liblib/lib}
    if [ "${2:-}" = --accept ]; then
        exported "$build/$library/$name.so" >"$name.txt"
    elif ! diff -u --label "packaging/symbols/$name.txt" --label "$name.so" "$name.txt" \
        <(exported "$build/$library/$name.so"); then
        interface=changed
        failed=1
    fi
done

# What a shell calls often starts fast: sdconfig needs few libraries, and none of the large ones.
closure() { ldd "$1" | sed -nE 's/^\s*(\S+).*/\1/p'; }
needed=$(closure "$build/apps/sdconfig/sdconfig")
if grep -E 'crypto\.so\.3|sqlite|Qt|icu|glib|libsdconfig|sdsecurity' <<<"$needed" || [ "$(wc -l <<<"$needed")" -gt 14 ]; then
    echo "packaging/check-symbols.sh: sdconfig needs libraries that its second program is for:" "${needed//$'\n'/ }" >&2
    failed=1
fi
if [ "$interface" = changed ]; then
    echo "packaging/check-symbols.sh: the interface changed. A name that went or changed breaks programs: raise the" \
        "major version of the project. If it is meant: packaging/check-symbols.sh BUILD-DIR --accept" >&2
fi
exit "$failed"
