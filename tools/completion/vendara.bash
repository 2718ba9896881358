# Completion of vendaractl(1), vendara-sign(1) and vendara-devkit(1) for bash.
_vendara_words=${BASH_SOURCE[0]%/*}/../../vendara/words

_vendara() {
    local words
    words=$(sh "$_vendara_words" "${COMP_WORDS[@]:0:COMP_CWORD}" "$2") || compopt -o default
    mapfile -t COMPREPLY < <(printf %s "$words" | cut -f 1)
} && complete -F _vendara vendaractl vendara-sign vendara-devkit
