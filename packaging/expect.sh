# What the tries of the packages have in common; they source it.

expect() { # WANTED COMMAND...: what the command prints
    local wanted=$1 got
    shift
    got=$("$@")
    if [ "$got" != "$wanted" ]; then
        echo "$0: $* printed \"$got\" instead of \"$wanted\"" >&2
        return 1
    fi
}

wait_for() { # COMMAND...: until it succeeds, for 10 s at most
    for _ in $(seq 100); do
        if "$@"; then return; fi
        sleep 0.1
    done
    echo "$0: waited in vain for: $*" >&2
    return 1
}
