# Completion of sdconfig for bash: commands, options, the keys that can be read in the data folder, and what is described
# of keys and their values.

_sdconfig_options() { # COMMAND: those of its own
    case $1 in
        get) echo --local --product-dir --default ;;
        "secure get") echo --default ;;
        set | "secure set" | "policy set") echo --unchecked --keys-dir ;;
        describe) echo --names --values --keys-dir ;;
        "keys lint") echo --strict --keys-dir ;;
        "policy list" | "key list" | "key slots") echo --data-dir ;;
        "policy export") echo --machine --data-dir ;;
        "policy clear" | "key prune" | "key protect" | "key unprotect") echo --yes ;;
        "key rotate") echo --reseal ;;
        "policy apply") echo --dry-run --show --prune --yes --data-dir --policy-dir --backup --unchecked --keys-dir ;;
        "policy lint") echo --strict --unchecked --keys-dir ;;
        "policy install") echo --dry-run --name --policy-dir --unchecked --keys-dir ;;
        "policy remove") echo --dry-run --policy-dir ;;
        explain) echo --show --data-dir --product-dir --keys-dir ;;
        log) echo --since --by --follow --reverse --data-dir ;;
        "log verify") echo --head --data-dir ;;
        "log head") echo --data-dir ;;
        watch) echo --exec ;;
        list) echo --show --data-dir --described --keys-dir ;;
        doctor) echo --data-dir ;;
        report) echo --show --output --with --data-dir --product-dir --keys-dir ;;
        check) echo --digest --against ;;
        upgrade) echo --dry-run --force ;;
        backup | restore) echo --force --without-keys ;;
        "") echo --version ;;
    esac
    echo --json --verbose --user --help
}

_sdconfig_keys() { # KIND: of the lines of "sdconfig list" that match it
    sdconfig list 2>/dev/null | sed -nE "s/^($1)\t//p" | sort -u
}

_sdconfig_described() { # keys
    sdconfig describe --names 2>/dev/null
}

_sdconfig_values() { # KEY: those that it may have
    sdconfig describe --values -- "$1" 2>/dev/null
}

_sdconfig_policy_files() { # those of the administrator, without what all end with
    find /etc/sdconfig/policies.d -name '[!.]*.json' -printf '%f\n' 2>/dev/null | sed 's/\.json$//'
}

_sdconfig_arguments() { # COMMAND NUMBER FIRST: what its NUMBERth argument may be, from 0 on, a line each
    case $1:$2 in
        :0)
            printf '%s\n' get set delete secure key policy explain describe keys log watch list upgrade doctor report check \
                backup restore const sign verify status help
            ;;
        secure:0) printf '%s\n' get set delete exec ;;
        keys:0) printf '%s\n' lint ;;
        key:0) printf '%s\n' list rotate disable enable prune slots protect unprotect unlock recover ;;
        policy:0) printf '%s\n' set get delete list strong clear export apply status lint install remove ;;
        log:0) printf '%s\n' verify head && _sdconfig_keys "secure|policy" ;;
        get:* | set:0 | delete:0 | describe:0) _sdconfig_described ;;
        set:1 | "secure set:1" | "policy set:1") _sdconfig_values "$3" ;;
        "secure set:0") _sdconfig_keys secure; _sdconfig_described ;;
        "policy set:0") _sdconfig_keys policy; _sdconfig_described ;;
        "secure get:"* | "secure delete:0") _sdconfig_keys secure ;;
        "secure exec:"*) _sdconfig_keys secure | sed "s/\$/=/" ;;
        "policy get:0" | "policy delete:0" | "policy strong:0") _sdconfig_keys policy ;;
        "key protect:0") printf '%s\n' host keyring passphrase recovery ;;
        "key unprotect:0") printf '%s\n' host keyring passphrase all ;;
        "key disable:0" | "key enable:0") sdconfig key list 2>/dev/null | cut -f 1 ;;
        "policy remove:0") _sdconfig_policy_files ;;
        explain:0) _sdconfig_keys "secure|policy"; _sdconfig_described ;;
        log:* | watch:* | list:*) _sdconfig_keys "secure|policy" ;;
    esac
}

_sdconfig_paths() { # COMMAND NUMBER: whether its NUMBERth argument is a "file" or a "directory"
    case $1:$2 in
        "policy export:0" | "policy apply:0" | "policy lint:"* | "policy install:0" | "keys lint:"* | backup:0 | restore:0) echo file ;;
        upgrade:0 | check:0 | backup:1 | restore:1) echo directory ;;
    esac
}

_sdconfig() {
    local word=${COMP_WORDS[COMP_CWORD]} command="" number=0 help="" first="" i
    COMPREPLY=()
    case ${COMP_WORDS[COMP_CWORD - 1]} in
        --data-dir | --product-dir | --policy-dir | --keys-dir) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$word"); return ;;
        --user) mapfile -t COMPREPLY < <(compgen -u -- "$word"); return ;;
        --backup | --output | -o | --with) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$word"); return ;;
        --exec) mapfile -t COMPREPLY < <(compgen -c -- "$word"); return ;;
        --since) mapfile -t COMPREPLY < <(compgen -W "15m 2h 2d 3w" -- "$word"); return ;;
    esac
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
            --data-dir | --product-dir | --policy-dir | --keys-dir | --backup | --output | -o | --with | --name | --exec | --default | --user | \
                --against | --since | --by | --head) ((++i)) ;;
            --)
                if [[ $command == "secure exec" ]]; then
                    mapfile -t COMPREPLY < <(compgen -c -- "$word")
                    return
                fi
                ;;
            -*) ;;
            *)
                if [[ -z $command && ${COMP_WORDS[i]} == help ]]; then
                    help=help
                    continue
                fi
                case $command in
                    "") command=${COMP_WORDS[i]} ;;
                    secure | key | keys | policy) command+=" ${COMP_WORDS[i]}" ;;
                    log) [[ $number == 0 && ${COMP_WORDS[i]} == @(verify|head) ]] && command+=" ${COMP_WORDS[i]}" || ((++number)) ;;
                    *)
                        [[ $number != 0 ]] || first=${COMP_WORDS[i]}
                        ((++number))
                        ;;
                esac
                ;;
        esac
    done
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_sdconfig_options "${help:-$command}")" -- "$word")
        return
    fi
    case ${help:+$command:$number} in
        "" | :0 | secure:0 | key:0 | keys:0 | policy:0 | log:0) ;;
        *) return ;;  # the help of this one
    esac
    [[ $command != "secure exec" ]] || compopt -o nospace
    case $(_sdconfig_paths "$command" "$number") in
        file) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        directory) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
        *) mapfile -t COMPREPLY < <(_sdconfig_arguments "$command" "$number" "$first" | sort -u | while IFS= read -r match; do
            [[ $match != "$word"* ]] || printf '%q\n' "$match"
        done) ;;
    esac
    # The shell takes what follows the last colon alone for the word.
    if declare -F __ltrim_colon_completions >/dev/null; then __ltrim_colon_completions "$word"; fi
}

complete -F _sdconfig sdconfig
