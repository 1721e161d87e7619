# A fresh bookworm by mmdebstrap, from where this machine has its own packages; the tries of the packages source it.
mapfile -t sources < <(find /etc/apt -maxdepth 2 \( -name '*.list' -o -name '*.sources' \))

# Hooks: commands for mmdebstrap's shell, whose $1 is the new root.
in_root() { # shellcheck disable=SC2016
    printf 'chroot "$1" sh -c "%s"' "DEBIAN_FRONTEND=noninteractive $* >/dev/null"
}
install() { in_root apt-get -o Acquire::Retries=5 install -qq -y --no-install-recommends "$@"; }
