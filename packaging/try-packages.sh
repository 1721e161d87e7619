#!/usr/bin/env bash
# Installs packages into a fresh, minimal bookworm, which is gone again afterwards, and uses them there as an ordinary
# user: packaging/try-packages.sh PACKAGE.deb...
set -euo pipefail
packaging=$(realpath "$(dirname "$0")")
. "$packaging/fresh-root.sh"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mkdir "$work/try"
cp "$@" "$packaging"/{smoke-test,expect}.sh "$work/try/"
mkdir "$work/try/packaging"
cp -r "$packaging"/../{README.md,docs,scripts,examples} "$work/try/"
cp -r "$packaging/man" "$work/try/packaging/"
chmod -R go+rX "$work"

as_user() { # shellcheck disable=SC2016
    printf 'chroot "$1" runuser -u tester -- /tmp/try/smoke-test.sh %s' "$1"
}

# The programs come before the compiler, so that nothing of its packages helps them along. systemd starts the service.
mmdebstrap --quiet --variant=minbase --format=null \
    --customize-hook="copy-in $work/try /tmp" \
    --customize-hook="$(in_root useradd --create-home tester)" \
    --customize-hook="$(install systemd '/tmp/try/libsdconfig1_*.deb' '/tmp/try/sdconfig_*.deb')" \
    --customize-hook="$(as_user programs)" \
    --customize-hook="$(install '/tmp/try/sdconfig-keyring_*.deb')" \
    --customize-hook="$(as_user keyring)" \
    --customize-hook="$(install '/tmp/try/python3-sdconfig_*.deb')" \
    --customize-hook="$(as_user python)" \
    --customize-hook="$(install g++ cmake make ninja-build pkg-config python3 sqlite3 '/tmp/try/libsdconfig-dev_*.deb')" \
    --customize-hook="$(as_user examples)" \
    --customize-hook="$(as_user documents)" \
    --customize-hook="$(in_root apt-get purge -qq -y python3-sdconfig sdconfig-keyring sdconfig libsdconfig-dev libsdconfig1)" \
    bookworm /dev/null "${sources[@]}"
