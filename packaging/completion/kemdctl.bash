# Completion of kemdctl for bash.
# shellcheck shell=bash

# The entries of a registry key, one a line: "k" or "v" for key or value, a blank, the name. Waits
# two seconds at most and ignores errors.
_kemdctl_entries() {
    local line name type
    while IFS= read -r line; do
        [[ $line == '  '* ]] || continue
        name=$line
        for type in string expand number binary; do name=${name%%"  $type  "*}; done
        if [[ $name != "$line" ]]; then
            name="v ${name#  }"
            echo "${name%"${name##*[! ]}"}" # without the blanks that align the types
        elif [[ $name == *\\ ]]; then
            name=${name#  }
            echo "k ${name%\\}"
        fi
    done < <(timeout 2 kemdctl registry list -- "$@" 2>/dev/null </dev/null)
}

# What the shell will make of a word that is being typed, its quotes perhaps not closed yet.
_kemdctl_unquote() {
    local word=$1
    case $word in
        \'*) word=${word//\'/} ;;
        \"*) word=${word//\"/} ;;
        *)
            # shellcheck disable=SC2162 # to take backslashes off is what it is for
            IFS= read word <<<"$word"
            ;;
    esac
    printf '%s\n' "$word"
}

# Offers the keys that continue a path; like directories, they are followed by a separator.
_kemdctl_keys() {
    local path separator=/ parent='' kind name
    path=$(_kemdctl_unquote "$1")
    [[ $path == *\\* ]] && separator=\\
    [[ $path == *"$separator"* ]] && parent=${path%"$separator"*}$separator
    while read -r kind name; do
        # A part with a slash can only be reached with backslashes.
        [[ $kind == k && $name != *\\* && $name != *"$separator"* ]] || continue
        [[ $parent$name == "$path"* ]] && COMPREPLY+=("$parent$name$separator")
    done < <(_kemdctl_entries ${parent:+"$parent"})
    compopt -o filenames -o nospace 2>/dev/null
}

_kemdctl_values() {
    local begin kind name
    begin=$(_kemdctl_unquote "$2")
    while read -r kind name; do
        [[ $kind == v && $name == "$begin"* && $name != *\\* ]] && COMPREPLY+=("$name")
    done < <(_kemdctl_entries "$(_kemdctl_unquote "$1")")
    compopt -o filenames 2>/dev/null # for its quoting
}

# The tags or threads of the newest records; of files that the line names before those in force.
_kemdctl_traced() {
    local field='[0-9A-F]*,[0-9]*,\([^",]*\)' word files=()
    [[ $1 == --tag ]] || field='\([0-9A-F]*\)'
    for word in "${@:2}"; do [[ -e $word ]] && files+=("$word"); done
    while IFS= read -r word; do
        [[ $word == "$cur"* ]] && COMPREPLY+=("$word")
    done < <(timeout 2 kemdctl trace -q -n 20000 -o csv -- "${files[@]}" 2>/dev/null </dev/null |
        sed -n "s/^[-0-9]\{10\} [.:0-9]\{12\},$field,.*/\1/p" | sort -u)
    compopt -o filenames 2>/dev/null # for its quoting
}

# The numbers of the runs that were kept.
_kemdctl_runs() {
    _kemdctl_choose "$(timeout 2 kemdctl trace --list-runs 2>/dev/null </dev/null | sed 's/ .*//')"
}

# The modules of the running kemd, or those that are installed.
_kemdctl_modules() {
    local names path
    names=$(timeout 2 kemdctl modules list 2>/dev/null </dev/null | sed '1d;s/ .*//')
    if [[ -z $names ]]; then
        for path in /usr/lib/kemd/modules/*.so; do
            path=${path##*/}
            names+=" ${path%.so}"
        done
    fi
    _kemdctl_choose "$names"
}

# The network interfaces. Their names may hold anything but blanks, slashes and colons.
_kemdctl_interfaces() {
    local path name
    for path in /sys/class/net/*; do
        name=${path##*/}
        [[ -L $path && $name == "$(_kemdctl_unquote "$cur")"* ]] && COMPREPLY+=("$name")
    done
    # sysfs lacks alternative names.
    while read -r name; do
        [[ $name == "$(_kemdctl_unquote "$cur")"* ]] && COMPREPLY+=("$name")
    done < <(timeout 2 kemdctl network --json 2>/dev/null </dev/null |
        sed 's/"alternative_names":\[\([^]\\]*\)\]/\n@\1\n/g' | sed -n 's/^@"\(.*\)"$/\1/p' | sed 's/","/\n/g')
    compopt -o filenames 2>/dev/null # for its quoting
}

# The series of the performance history.
_kemdctl_series() {
    local name
    while IFS= read -r name; do
        [[ $name == "$(_kemdctl_unquote "$cur")"* ]] && COMPREPLY+=("$name")
    done < <(timeout 2 kemdctl performance list 2>/dev/null </dev/null | sed '1d;s/  .*//')
    compopt -o filenames 2>/dev/null # for its quoting
}

_kemdctl_sections="system memory slots pci usb drives network volumes"

# Leaves the word to the completion of file names.
_kemdctl_files() { compopt -o default 2>/dev/null; }

_kemdctl_choose() { mapfile -t COMPREPLY < <(compgen -W "$1" -- "$cur"); }

# The words of "kemdctl registry SUBCOMMAND" after the subcommand; the last one is being typed.
_kemdctl_registry() {
    local subcommand=$1
    shift
    case $subcommand:$# in
        get:1 | list:1 | set:1 | delete:1) _kemdctl_keys "$1" ;;
        get:2 | set:2 | delete:2) _kemdctl_values "$1" "$2" ;;
        set:3) _kemdctl_choose "string expand number binary" ;;
        export:1 | import:1 | check:1) _kemdctl_files ;;
    esac
}

_kemdctl_help() { timeout 2 kemdctl ${1:+"$1"} --help 2>/dev/null </dev/null; }

# The commands, or the subcommands of one, which its help has in lines of their own.
_kemdctl_commands() { _kemdctl_help "$1" | sed -n 's/^  \([a-z][a-z]*\) .*/\1/p'; }

# The options of a command, or of its subcommand, one a line: the option, a blank, what it takes. In
# the help they stand in the lines that begin with a dash, or with the subcommand.
_kemdctl_options() {
    local option='--?[a-z][a-z-]*' line
    local pattern="(^|[^a-z0-9-])($option)(, $option)*( ([A-Z:]+|[a-z]+(\|[a-z]+)+))?"
    while IFS= read -r line; do
        [[ $line == "  ${2:--}"* ]] || continue
        while [[ $line =~ $pattern ]]; do
            echo "${BASH_REMATCH[2]} ${BASH_REMATCH[5]}"
            line=${line#*"${BASH_REMATCH[2]}"}
        done
    done < <(_kemdctl_help "$1")
}

# Offers what an option takes, when it takes something.
_kemdctl_value() {
    local option taken
    case $1:$3 in
        trace:--since | trace:--until | perf*:--since | perf*:--until) _kemdctl_choose "today yesterday now" ;;
        trace:--thread | trace:--tag) _kemdctl_traced "$3" "${words[@]:1}" ;;
        trace:--run) _kemdctl_runs ;;
        network:--name) _kemdctl_interfaces ;;
        network:--state) _kemdctl_choose "up down off dormant testing notpresent" ;;
        *)
            while read -r option taken; do
                [[ $option == "$3" && -n $taken ]] || continue
                [[ $taken != FILE ]] || _kemdctl_files
                [[ $taken != *\|* ]] || _kemdctl_choose "${taken//|/ }"
                return 0
            done < <(_kemdctl_options "$1" "$2")
            return 1
            ;;
    esac
}

_kemdctl() {
    COMPREPLY=()
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} word i
    local words=() ended=
    if [[ $cur == = ]]; then
        cur=
    elif [[ $prev == = ]]; then
        prev=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ -n $ended || $word != -?* || $word == -[0-9]* ]]; then
            words+=("$word")
        elif [[ $word == -- ]]; then
            ended=1
        fi
    done

    if [[ -z $ended ]]; then
        local command=${words[0]-} subcommand=
        [[ $command != registry ]] || subcommand=${words[1]:-SUBCOMMAND}
        if [[ $prev == -?* ]] && _kemdctl_value "$command" "$subcommand" "$prev"; then
            return
        fi
        if [[ $cur == -* ]]; then
            _kemdctl_choose "$({
                echo --help
                _kemdctl_options "$command" "$subcommand" | sed 's/ .*//'
            } | sort -u)"
            return
        fi
    fi
    case ${words[0]-}:${#words[@]} in
        :0) _kemdctl_choose "$(_kemdctl_commands '')" ;;
        trace:*) _kemdctl_files ;;
        inventory:1) _kemdctl_choose "$(_kemdctl_commands inventory) $_kemdctl_sections" ;;
        inventory:*)
            case ${words[1]}:${#words[@]} in
                save:2 | diff:[23]) _kemdctl_files ;;
                diff:*) ;;
                *) _kemdctl_choose "$_kemdctl_sections" ;;
            esac
            ;;
        modules:1) _kemdctl_choose "$(_kemdctl_commands modules)" ;;
        modules:2) [[ ${words[1]} == list ]] || _kemdctl_modules ;;
        network:1) _kemdctl_choose "$(_kemdctl_commands network)" ;;
        network:2) [[ ${words[1]} != show ]] || _kemdctl_interfaces ;;
        performance:1 | perf:1) _kemdctl_choose "$(_kemdctl_commands performance)" ;;
        performance:* | perf:*)
            case ${words[1]} in
                around) [[ ${#words[@]} -gt 2 ]] || _kemdctl_choose "last-run now" ;;
                show | summary | list | export) _kemdctl_series ;;
            esac
            ;;
        xml:1) _kemdctl_choose "$(_kemdctl_commands xml)" ;;
        xml:*) _kemdctl_files ;;
        registry:1) _kemdctl_choose "$(_kemdctl_commands registry)" ;;
        registry:*) _kemdctl_registry "${words[@]:1}" "$cur" ;;
    esac
}

complete -F _kemdctl kemdctl
