# Completion of kemd for bash: what its help text offers.
# shellcheck shell=bash

_kemd() {
    local options="" line
    while read -r line; do
        [[ $line == -* ]] || continue
        # Those with two hyphens count only as the sole argument.
        [[ $line == --* ]] && ((COMP_CWORD > 1)) && continue
        line=${line%%  *}
        options+=" ${line//,/}"
    done < <("${COMP_WORDS[0]}" --help 2>/dev/null)
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "${COMP_WORDS[COMP_CWORD]}")
}

complete -F _kemd kemd
