# Completion of kemd for bash.
# shellcheck shell=bash

_kemd() {
    local options="-n -nodemon -rescan -agentless -ovins -ovupd"
    # These are for a word of their own.
    ((COMP_CWORD > 1)) || options+=" --help --version"
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "${COMP_WORDS[COMP_CWORD]}")
}

complete -F _kemd kemd
