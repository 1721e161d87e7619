#!/usr/bin/env bash
# Compares the completions of all three shells with what "sdconfig --help" tells of commands and options.
#     packaging/check-completions.sh SDCONFIG
set -euo pipefail
export LC_ALL=C
sdconfig=$(realpath "${1:?usage: packaging/check-completions.sh SDCONFIG}")
cd "$(dirname "$0")/completions"

PATH=$(dirname "$sdconfig"):$PATH
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
# Where nothing is stored, no key is offered, and what is offered is a command.
export HOME=$home XDG_RUNTIME_DIR=$home XDG_DATA_HOME=$home ZDOTDIR=$home XDG_CONFIG_HOME=$home

subcommands() { # COMMAND...
    sdconfig "$@" --help | sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) .*/\1/p'
}
options() { # COMMAND...: long ones, those that go with every command included
    { sdconfig "$@" --help; [ $# = 0 ] || sdconfig --help | grep -v -- --version; } |
        grep -oE '^ +(-[a-z],)?--[a-z-]+' | grep -oE -- '--[a-z-]+' | sort -u
}

# Each prints what its shell offers after a blank or after "--".
offered_by_bash() { # WORD... LAST
    bash -c '. ./sdconfig.bash; compopt() { :; }; COMP_WORDS=(sdconfig "$@"); COMP_CWORD=$#; _sdconfig
        printf "%s\n" "${COMPREPLY[@]}"' bash "$@"
}
offered_by_fish() {
    fish --no-config -c 'source sdconfig.fish; complete -C $argv[1]' "sdconfig $*" | cut -f 1
}
offered_by_zsh() {
    zsh -f zsh-offers.zsh "sdconfig $*"
}

failed=0
compare() { # WANTED WORD... LAST
    local wanted=$1 shell
    shift
    for shell in bash zsh fish; do
        if ! diff <(sort -u <<<"$wanted") <(offered_by_$shell "$@" | grep -v '^-.$' | sort -u) >"$home/difference"; then
            echo "packaging/completions: $shell, after \"sdconfig $*\": < --help, > offered" >&2
            cat "$home/difference" >&2
            failed=1
        fi
    done
}

compare "$(subcommands)" ""
compare "$(options)" --
for command in $(subcommands); do
    nested=$(subcommands "$command")
    if [ -z "$nested" ]; then
        compare "$(options "$command")" "$command" --
        continue
    fi
    compare "$nested" "$command" ""
    for second in $nested; do compare "$(options "$command" "$second")" "$command" "$second" --; done
done
exit "$failed"
