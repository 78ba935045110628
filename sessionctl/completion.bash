# shellcheck shell=bash
# Completion of the command line of sessionctl.
# Names in the store are anybody's choice: nothing here expands them.

# The values of a member in what is listed, one a line. A line has one member, in ASCII; values with
# an escape in them are left out.
_sessionctl_values() {
    local member=$1
    shift
    "$@" --timeout 1 --json list 2>/dev/null </dev/null |
        LC_ALL=C sed -n "s/^ *\"$member\": \"\\([^\"\\\\]\\{1,\\}\\)\",\\{0,1\\}\$/\\1/p" | sort -u
}

# Adds those of the lines of standard input that begin with what is typed.
_sessionctl_add() {
    local typed=$1 word
    while IFS= read -r word; do
        if [[ $word == "$typed"* ]]; then
            COMPREPLY+=("$(printf '%q' "$word")")
        fi
    done
}

_sessionctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command='' word i
    local call=("${COMP_WORDS[0]}")
    COMPREPLY=()
    # The command, and the root that sessions are looked for in.
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
            --root)
                i=$((i + 1))
                call+=(--root "${COMP_WORDS[i]/#\~/${HOME-}}")
                ;;
            --timeout | --user | --state | --output) i=$((i + 1)) ;;
            -*) ;;
            *) [ -n "$command" ] || command=$word ;;
        esac
    done

    case $previous in
        --root)
            _sessionctl_add "$current" < <(compgen -d -- "$current")
            compopt -o filenames 2>/dev/null
            return
            ;;
        --state | --output)
            _sessionctl_add "$current" < <(compgen -f -- "$current")
            compopt -o filenames 2>/dev/null
            return
            ;;
        --user)
            _sessionctl_add "$current" < <(_sessionctl_values user "${call[@]}")
            return
            ;;
        --timeout) return ;;
    esac

    local options=(--json --timeout --root --help)
    case $command in
        '') options+=(--version) ;;
        delete) options+=(--user --all --yes) ;;
        stats) options+=(--prometheus --state --output) ;;
    esac
    if [[ $current == -* ]]; then
        _sessionctl_add "$current" < <(printf '%s\n' "${options[@]}")
        return
    fi

    case $command in
        '' | help)
            _sessionctl_add "$current" < <(printf '%s\n' list show delete login watch check stats \
                timeout enable disable help)
            ;;
        show | delete) _sessionctl_add "$current" < <(_sessionctl_values id "${call[@]}") ;;
        login) _sessionctl_add "$current" < <(compgen -u -- "$current") ;;
    esac
}

complete -F _sessionctl sessionctl
