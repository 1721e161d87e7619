#!/usr/bin/env bash
# Uses what is installed, as an ordinary user: packaging/smoke-test.sh programs|keyring|python|examples|documents
set -Eeuo pipefail
trap 'echo "packaging/smoke-test.sh: line $LINENO failed" >&2' ERR
here=$(realpath "$(dirname "$0")")
. "$here/expect.sh"

work=$(mktemp -d)
export XDG_RUNTIME_DIR=$work/run HOME=$work/home
unset XDG_DATA_HOME
mkdir -m 700 "$XDG_RUNTIME_DIR" "$XDG_RUNTIME_DIR/sdbus" "$HOME"

processes=()
finish() {
    for process in "${processes[@]}"; do kill "$process" 2>/dev/null || true; done
    wait
    rm -rf "$work"
}
trap finish EXIT

# The first call starts the service on the socket that it is handed, as systemd does it.
listen() {
    (umask 077 && exec systemd-socket-activate -l "$XDG_RUNTIME_DIR/sdbus/sdconfig" -E XDG_RUNTIME_DIR -E HOME \
        sdconfigd 2>"$work/service.log") &
    service=$!
    processes+=("$service")
    wait_for test -S "$XDG_RUNTIME_DIR/sdbus/sdconfig"
    chmod 600 "$XDG_RUNTIME_DIR/sdbus/sdconfig"
}

try_programs() {
    test -z "$(compgen -G '/usr/lib/*/libglib-2.0.so*' || true)"  # the login keyring's package alone draws it
    listen
    test ! -e "$HOME/.local"  # nobody called yet
    sdconfig list >/dev/null  # asks who serves before it reads that one's data
    sdconfig set sd.ui.theme dark
    expect dark sdconfig get sd.ui.theme
    test "$(readlink "/proc/$service/exe")" = /usr/bin/sdconfigd
    echo "correct horse" | sdconfig secure set mail.password
    expect "correct horse" sdconfig secure get mail.password
    sdconfig policy set mail.password "of the administrator" 6
    expect "of the administrator" sdconfig secure get mail.password
    expect $'policy\tmail.password\nsecure\tmail.password' sh -c 'sdconfig list | grep mail | sort'
    sdconfig policy delete mail.password
    sdconfig doctor

    local page
    for page in man1/sdconfig.1 man5/build.prop.5 man5/sdconfig-keys.5 man5/sdconfig-policy.5 man8/sdconfigd.8; do
        gzip -t "/usr/share/man/$page.gz"
    done
    local program
    for program in sdconfig sdconfigd; do
        bash -n "/usr/share/bash-completion/completions/$program"
        test -f "/usr/share/zsh/vendor-completions/_$program"
        test -f "/usr/share/fish/vendor_completions.d/$program.fish"
    done
    expect "mail.password" bash -c '. /usr/share/bash-completion/completions/sdconfig
        COMP_WORDS=(sdconfig secure get ma) COMP_CWORD=3; _sdconfig; echo "${COMPREPLY[@]}"'
    systemd-analyze verify --man=no /usr/lib/systemd/system/sdconfigd.{socket,service}
    systemd-analyze verify --man=no --user /usr/lib/systemd/user/sdconfigd.{socket,service}
    # The package has enabled the users' socket, and not the system's.
    test -e /etc/systemd/user/sockets.target.wants/sdconfigd.socket
    test ! -e /etc/systemd/system/sockets.target.wants/sdconfigd.socket
}

try_keyring() {
    local id=00112233445566778899aabbccddeeff
    expect "1 not-now absent: there is no session bus" /usr/libexec/sdconfig/sdconfig-keyring <<<"1 find $id"
}

try_python() {
    listen
    expect "grün 8080 1.5KiB" python3 - <<'END'
import sdconfig

NAME = sdconfig.Key("velmar.name", str, "", sdconfig.Store.SECURE)
PORT = sdconfig.Key("velmar.proxy.port", int, 8080)
SIZE = sdconfig.Key("velmar.size", sdconfig.Size, sdconfig.Size(0))
with sdconfig.Settings() as settings:
    settings.set(NAME, "grün")
    settings.set(SIZE, sdconfig.Size(1536))
    print(settings.get(NAME), settings.get(PORT), f"{settings.get(SIZE) / 1024}KiB")
END
    test -d /usr/lib/python3/dist-packages/sdconfig/__pycache__
}

try_examples() {
    cmake -S "$here/examples" -B "$work/cmake" -G Ninja >/dev/null
    cmake --build "$work/cmake" >/dev/null
    local example
    mkdir "$work/pkg-config"
    for example in secret read_and_write policy_listener own_service steady_client ask_once; do
        # shellcheck disable=SC2046
        g++ -std=c++17 "$here/examples/$example.cpp" -o "$work/pkg-config/$example" \
            $(pkg-config --cflags --libs sdconfig)
    done
    sdconfig-keygen "$here/examples/velmar.keys.json" -o "$work/pkg-config/typed_settings_keys.h"
    # shellcheck disable=SC2046
    g++ -std=c++17 -I "$work/pkg-config" "$here/examples/typed_settings.cpp" -o "$work/pkg-config/typed_settings" \
        $(pkg-config --cflags --libs sdconfig)
    local built
    for built in "$work/cmake" "$work/pkg-config"; do run_examples "$built"; done
}

run_examples() { # FOLDER
    listen
    expect "correct horse" "$1/secret"
    expect "property: dark
secure value: correct horse
under a policy: from the administrator (strong)
without it: correct horse" "$1/read_and_write"

    expect "port: 8080
port: 3128
70000 is no port
printer: Größe 3
interval: not set
theme: light" "$1/typed_settings"

    "$1/policy_listener" wlan.enabled 60 >"$work/heard" &
    local listener=$!
    processes+=("$listener")
    wait_for grep -qx 'wlan.enabled: (not set)' "$work/heard"
    sdconfig policy set wlan.enabled off 10
    wait_for grep -qx 'wlan.enabled: off' "$work/heard"
    kill -KILL "$service"
    wait "$service" || true
    rm "$XDG_RUNTIME_DIR/sdbus/sdconfig"
    listen
    sdconfig policy set wlan.enabled on 10
    wait_for grep -qx 'wlan.enabled: on' "$work/heard"
    sdconfig policy delete wlan.enabled
    end "$listener"
    end "$service"
    rm -f "$XDG_RUNTIME_DIR/sdbus/sdconfig"

    mkdir -p "$work/own"
    mkfifo "$work/end"
    "$1/own_service" "$work/own" <"$work/end" >"$work/own.out" &
    local host=$!
    processes+=("$host")
    exec 3>"$work/end"
    wait_for grep -qx 'Hello from a host of my own' "$work/own.out"
    expect "Hello from a host of my own" sdconfig const greeting
    exec 3>&-
    wait "$host"
    rm "$work/end"
}

# The pages' own commands, against what is installed.
try_documents() { "$here/scripts/check-docs" /usr/bin; }

end() { # PROCESS
    kill "$1"
    wait "$1" || true
}

"try_$1"
echo "packaging/smoke-test.sh: the $1 work"
