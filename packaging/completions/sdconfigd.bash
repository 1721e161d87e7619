# Completion of sdconfigd for bash: its options, and what they take.

_sdconfigd() {
    local word=${COMP_WORDS[COMP_CWORD]}
    COMPREPLY=()
    case ${COMP_WORDS[COMP_CWORD - 1]} in
        --data-dir | --product-dir | --policy-dir) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
        --constants | --seal-socket) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        --log-level) mapfile -t COMPREPLY < <(compgen -W "5 6 7 8" -- "$word") ;;
        *)
            mapfile -t COMPREPLY < <(compgen -W "--data-dir --product-dir --constants --policy-dir --seal-socket \
                --no-audit --audit-reads --audit-size --audit-keep --log-level --log-secrets --allow-dumps --upgrade --rotate-key --version --help" -- "$word")
            ;;
    esac
}

complete -F _sdconfigd sdconfigd
