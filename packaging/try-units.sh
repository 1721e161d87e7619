#!/usr/bin/env bash
# Boots a fresh bookworm with the packages in a container and uses the units there, under the system's manager and a
# user's: packaging/try-units.sh PACKAGE.deb...        Needs root and systemd-nspawn.
set -euo pipefail
packaging=$(realpath "$(dirname "$0")")
. "$packaging/fresh-root.sh"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mkdir "$work/try"
cp "$@" "$packaging"/{units-test,expect}.sh "$work/try/"
# A client's program is built here against the packages, so that the container needs no compiler.
for package in "$@"; do
    case $(basename "$package") in libsdconfig*) dpkg-deb --extract "$package" "$work/built-against" ;; esac
done
libraries=("$work"/built-against/usr/lib/*/libsdconfig.so)
${CXX:-g++} -std=c++17 -Wall -Wextra -Werror -I"$work/built-against/usr/include/sdconfig" \
    "$packaging/get_round_policy.cpp" -o "$work/try/get_round_policy" \
    -L"${libraries[0]%/*}" -Wl,-rpath-link,"${libraries[0]%/*}" -lsdconfig
chmod -R go+rX "$work/try"
# Runs the test as the last thing of the start, and ends the container.
cat >"$work/try.service" <<'END'
[Unit]
After=multi-user.target user@1000.service user@1001.service user@1002.service
Wants=user@1000.service user@1001.service user@1002.service
[Service]
Type=oneshot
ExecStart=/root/try/units-test.sh
ExecStopPost=systemctl poweroff
StandardOutput=append:/root/try/log
StandardError=inherit
[Install]
WantedBy=default.target
END
mmdebstrap --quiet --variant=minbase --include=systemd-sysv,dbus,dbus-user-session,libpam-systemd \
    --customize-hook="copy-in $work/try /root" \
    --customize-hook="copy-in $work/try.service /etc/systemd/system" \
    --customize-hook="$(in_root groupadd pilot)" \
    --customize-hook="$(in_root useradd --create-home --uid 1000 tester)" \
    --customize-hook="$(in_root useradd --create-home --uid 1001 --groups pilot alice)" \
    --customize-hook="$(in_root useradd --create-home --uid 1002 bob)" \
    --customize-hook="$(install '/root/try/libsdconfig1_*.deb' '/root/try/sdconfig_*.deb')" \
    --customize-hook="$(in_root systemctl enable try.service)" \
    bookworm "$work/root" "${sources[@]}"

timeout --kill-after=10 300 systemd-nspawn --quiet --directory="$work/root" --boot --private-network --register=no \
    --keep-unit >"$work/console" 2>&1 || cat "$work/console" >&2
cat "$work/root/root/try/log"
grep -q 'the units work$' "$work/root/root/try/log"
