# Completion of sdconfig for bash: commands, options, and the keys that can be read in the data folder.

_sdconfig_options() { # COMMAND: those of its own
    case $1 in
        get) echo --local --product-dir --default ;;
        "secure get") echo --default ;;
        "policy list" | "key list" | "key slots") echo --data-dir ;;
        "policy export") echo --machine --data-dir ;;
        "policy clear" | "key prune" | "key protect" | "key unprotect") echo --yes ;;
        "key rotate") echo --reseal ;;
        "policy apply") echo --dry-run --show --prune --yes --data-dir --policy-dir --backup ;;
        "policy lint") echo --strict ;;
        "policy install") echo --dry-run --name --policy-dir ;;
        "policy remove") echo --dry-run --policy-dir ;;
        explain) echo --show --data-dir --product-dir ;;
        log) echo --since --by --follow --reverse --data-dir ;;
        "log verify") echo --head --data-dir ;;
        "log head") echo --data-dir ;;
        watch) echo --exec ;;
        list) echo --show --data-dir ;;
        doctor) echo --data-dir ;;
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

_sdconfig_policy_files() { # those of the administrator, without what all end with
    find /etc/sdconfig/policies.d -name '[!.]*.json' -printf '%f\n' 2>/dev/null | sed 's/\.json$//'
}

_sdconfig_arguments() { # COMMAND NUMBER: what its NUMBERth argument may be, from 0 on, a line each
    case $1:$2 in
        :0)
            printf '%s\n' get set delete secure key policy explain log watch list upgrade doctor check backup restore const \
                sign verify status help
            ;;
        secure:0) printf '%s\n' get set delete exec ;;
        key:0) printf '%s\n' list rotate disable enable prune slots protect unprotect unlock recover ;;
        policy:0) printf '%s\n' set get delete list strong clear export apply status lint install remove ;;
        log:0) printf '%s\n' verify head && _sdconfig_keys "secure|policy" ;;
        "secure get:"* | "secure set:0" | "secure delete:0") _sdconfig_keys secure ;;
        "secure exec:"*) _sdconfig_keys secure | sed "s/\$/=/" ;;
        "policy set:0" | "policy get:0" | "policy delete:0" | "policy strong:0") _sdconfig_keys policy ;;
        "key protect:0") printf '%s\n' host keyring passphrase recovery ;;
        "key unprotect:0") printf '%s\n' host keyring passphrase all ;;
        "key disable:0" | "key enable:0") sdconfig key list 2>/dev/null | cut -f 1 ;;
        "policy remove:0") _sdconfig_policy_files ;;
        explain:0 | log:* | watch:* | list:*) _sdconfig_keys "secure|policy" ;;
    esac
}

_sdconfig_paths() { # COMMAND NUMBER: whether its NUMBERth argument is a "file" or a "directory"
    case $1:$2 in
        "policy export:0" | "policy apply:0" | "policy lint:"* | "policy install:0" | backup:0 | restore:0) echo file ;;
        upgrade:0 | check:0 | backup:1 | restore:1) echo directory ;;
    esac
}

_sdconfig() {
    local word=${COMP_WORDS[COMP_CWORD]} command="" number=0 help="" i
    COMPREPLY=()
    case ${COMP_WORDS[COMP_CWORD - 1]} in
        --data-dir | --product-dir | --policy-dir) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$word"); return ;;
        --user) mapfile -t COMPREPLY < <(compgen -u -- "$word"); return ;;
        --backup) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$word"); return ;;
        --exec) mapfile -t COMPREPLY < <(compgen -c -- "$word"); return ;;
        --since) mapfile -t COMPREPLY < <(compgen -W "15m 2h 2d 3w" -- "$word"); return ;;
    esac
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
            --data-dir | --product-dir | --policy-dir | --backup | --name | --exec | --default | --user | --against | --since | \
                --by | --head) ((++i)) ;;
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
                    secure | key | policy) command+=" ${COMP_WORDS[i]}" ;;
                    log) [[ $number == 0 && ${COMP_WORDS[i]} == @(verify|head) ]] && command+=" ${COMP_WORDS[i]}" || ((++number)) ;;
                    *) ((++number)) ;;
                esac
                ;;
        esac
    done
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_sdconfig_options "${help:-$command}")" -- "$word")
        return
    fi
    case ${help:+$command:$number} in
        "" | :0 | secure:0 | key:0 | policy:0 | log:0) ;;
        *) return ;;  # the help of this one
    esac
    [[ $command != "secure exec" ]] || compopt -o nospace
    case $(_sdconfig_paths "$command" "$number") in
        file) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        directory) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
        *) mapfile -t COMPREPLY < <(_sdconfig_arguments "$command" "$number" | while IFS= read -r match; do
            [[ $match != "$word"* ]] || printf '%q\n' "$match"
        done) ;;
    esac
    # The shell takes what follows the last colon alone for the word.
    if declare -F __ltrim_colon_completions >/dev/null; then __ltrim_colon_completions "$word"; fi
}

complete -F _sdconfig sdconfig
