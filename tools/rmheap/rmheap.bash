# Completion of rmheap in bash: options, their values and files; tags and reports of the logs that
# stand on the command line, as rmheap itself lists them. Installed where bash-completion finds it by
# its name.
# shellcheck shell=bash

# The logs on the command line, in $logs.
_rmheap_logs() {
    local i word
    logs=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
        -s | --svg | -r | --report | -t | --tag | -S | --sort)
            ((++i))
            [[ ${COMP_WORDS[i]} != '=' ]] || ((++i)) # bash divides words there
            ;;
        -*) ;;
        *) [[ ! -f $word ]] || logs+=("$word") ;;
        esac
    done
}

_rmheap() {
    local rmheap=$1 cur=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} logs
    COMPREPLY=()
    if [[ $cur == '=' ]]; then
        cur=
    elif [[ $before == '=' ]]; then
        before=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    case $before in
    -S | --sort)
        mapfile -t COMPREPLY < <(compgen -W \
            'bytes blocks free frag largest segments tag name' -- "$cur")
        return
        ;;
    -r | --report | --compare)
        _rmheap_logs
        ((${#logs[@]} == 0)) || mapfile -t COMPREPLY < <(compgen -W \
            "$("$rmheap" --list --json -- "${logs[@]}" 2>/dev/null |
                sed -n 's/^  {"report": \([0-9]*\),.*/\1/p')" -- "$cur")
        return
        ;;
    -t | --tag)
        _rmheap_logs
        ((${#logs[@]} == 0)) || mapfile -t COMPREPLY < <(compgen -W \
            "$("$rmheap" --json -- "${logs[@]}" 2>/dev/null |
                sed -n 's/^    {"tag": \([0-9]*\),.*/\1/p')" -- "$cur")
        return
        ;;
    esac
    if [[ $cur == -* && $before != -s && $before != --svg ]]; then
        mapfile -t COMPREPLY < <(compgen -W '--svg --report --list --compare --tag --sort --sizes
            --human --json --quiet --help --version' -- "$cur")
        return
    fi
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
}

complete -F _rmheap rmheap
