# Completion of kemd-module-host for bash.
# shellcheck shell=bash

_kemd_module_host() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local options="--settings --request --seconds --timeout --reboot --halt --trace --help"
    COMPREPLY=()
    if [[ $cur == = ]]; then
        cur=
    elif [[ $prev == = ]]; then
        prev=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    case $prev in
        --seconds | --timeout | --request) return ;;
        --settings) mapfile -t COMPREPLY < <(compgen -f -- "$cur"); return ;;
        --trace) options="0 1 2 3 4 5 6" ;;
        *)
            if [[ $cur != -* ]]; then
                mapfile -t COMPREPLY < <(compgen -d -- "$cur"; compgen -f -X '!*.so' -- "$cur")
                compopt -o filenames 2>/dev/null
                return
            fi
            ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
}

complete -F _kemd_module_host kemd-module-host
