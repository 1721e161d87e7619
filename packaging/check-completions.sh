#!/usr/bin/env bash
# Compares the completions of all three shells, and the manual of sdconfig, with what "--help" of the programs tells of
# commands and options, which the table of commands tells.
#     packaging/check-completions.sh SDCONFIG SDCONFIGD
set -euo pipefail
export LC_ALL=C
: "${2:?usage: packaging/check-completions.sh SDCONFIG SDCONFIGD}"
PATH=$(dirname "$(realpath "$1")"):$(dirname "$(realpath "$2")"):$PATH
cd "$(dirname "$0")/completions"

home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
# Where nothing is stored, no key is offered, and what is offered is a command.
export HOME=$home XDG_RUNTIME_DIR=$home XDG_DATA_HOME=$home ZDOTDIR=$home XDG_CONFIG_HOME=$home

program=sdconfig
subcommands() { # COMMAND...
    "$program" "$@" --help | sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) .*/\1/p'
}
options() { # COMMAND...: long ones, those that go with every command included
    { "$program" "$@" --help; [ $# = 0 ] || "$program" --help | grep -v -- --version; } |
        grep -oE '^ +(-[a-z],)?--[a-z-]+' | grep -oE -- '--[a-z-]+' | sort -u
}

# Each prints what its shell offers after a blank or after "--".
offered_by_bash() { # WORD... LAST
    bash -c '. "./$0.bash"; compopt() { :; }; COMP_WORDS=("$0" "$@"); COMP_CWORD=$#; "_$0"
        printf "%s\n" "${COMPREPLY[@]}"' "$program" "$@"
}
offered_by_fish() {
    fish --no-config -c 'source $argv[1].fish; complete -C "$argv"' "$program" "$@" | cut -f 1
}
offered_by_zsh() {
    zsh -f zsh-offers.zsh "$program $*"
}

failed=0
compare() { # WANTED WORD... LAST
    local wanted=$1 shell
    shift
    for shell in bash zsh fish; do
        if ! diff <(sort -u <<<"$wanted") <(offered_by_$shell "$@" | grep -v '^-.$' | sort -u) >"$home/difference"; then
            echo "packaging/completions: $shell, after \"$program $*\": < --help, > offered" >&2
            cat "$home/difference" >&2
            failed=1
        fi
    done
}

# What the manual shows of a command: its line and the lines that it is broken into.
manual() { # COMMAND...
    sed -nE "/^(.*, )?\*$*\*( |,|$)/,/^\t|^$/p" ../man/sdconfig.1.scd
}
look_up() { # COMMAND...
    local entry option own
    entry=$(manual "$@")
    own=$("$program" "$@" --help | grep -oE '^ +(-[a-z],)?--[a-z-]+' | grep -oE -- '--[a-z-]+' | grep -v -- --help || true)
    for option in $own; do grep -qF -- "*$option*" <<<"$entry" || entry=; done
    [ -n "$entry" ] || { echo "packaging/man/sdconfig.1.scd: \"$*\" is not as its --help has it" >&2 && failed=1; }
}

compare "$(subcommands)" ""
compare "$(options)" --
for command in $(subcommands); do
    nested=$(subcommands "$command")
    if [ -z "$nested" ]; then
        compare "$(options "$command")" "$command" --
        [ "$command" = help ] || look_up "$command"
        continue
    fi
    compare "$nested" "$command" ""
    compare "$(options "$command")" "$command" --
    # It may be a command by itself, too.
    ! "$program" "$command" --help | grep -q '^Positionals:' || look_up "$command"
    for second in $nested; do
        compare "$(options "$command" "$second")" "$command" "$second" --
        look_up "$command" "$second"
    done
done

program=sdconfigd
compare "$(options)" --
exit "$failed"
