# Prints what _sdconfig in this folder offers for a command line, a line each: zsh -f zsh-offers.zsh "sdconfig --"
# Completion works at a terminal alone, so an interactive shell gets one, and prints matches between two marks.
zmodload zsh/zpty
zpty offers zsh -f -i
settings=(
    "PS1=; fpath=($PWD \$fpath); autoload -Uz compinit; compinit -u -D"
    "bindkey '^I' complete-word; zstyle ':completion:*' verbose no"
    # Matches that only fill an array are no offer.
    'compadd() {
        if [[ ${@[1,(i)(-|--)]} == *-(O|A|D)\ * ]]; then builtin compadd "$@"; return; fi
        local -a matches
        builtin compadd -A matches "$@"
        (( $#matches )) && print -rl -- $matches
        builtin compadd "$@"
    }'
    'mark() { print -r -- "<mark>" }; compprefuncs=(mark); comppostfuncs=(mark exit)'
    'stty -echo; print -r -- "<rea""dy>"'
)
for setting in $settings; do zpty -w offers $setting; done
zpty -r offers output '*<ready>*'
zpty -n -w offers "$1"$'\t'
zpty -r offers output '*<mark>*<mark>*'
print -r -- ${${output#*<mark>}%%<mark>*} | tr -d '\r' | grep .
zpty -d offers
