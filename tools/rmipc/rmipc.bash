# Completion of rmipc in bash: commands, options and directories; a prefix is mostly one. Installed
# where bash-completion finds it by its name.
# shellcheck shell=bash

_rmipc_offer_options() {
    local options='--json --quiet --help --version'
    case $command in
    '') options+=' --all --bags' ;;
    list) options+=' --all --bags' ;;
    remove) options+=' --dry-run --yes --force' ;;
    orphans) options+=' --ids' ;;
    limits) options+=' --message --segment --proc' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
}

_rmipc() {
    local cur=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command='' word i
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
        -m | --message | -s | --segment | -p | --proc)
            ((++i))
            [[ ${COMP_WORDS[i]} != '=' ]] || ((++i)) # bash divides words there
            ;;
        -*) ;;
        list | remove | orphans | limits)
            command=$word
            break
            ;;
        *)
            command=list
            break
            ;;
        esac
    done
    if [[ $cur == '=' ]]; then
        cur=
    elif [[ $before == '=' ]]; then
        before=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    case $before in
    -m | --message | -s | --segment) return ;;
    -p | --proc) command=list ;; # a directory
    esac
    if [[ $cur == -* ]]; then
        _rmipc_offer_options
        return
    fi
    if [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W 'list remove orphans limits' -- "$cur")
    fi
    [[ $command != limits ]] || return
    compopt -o filenames 2>/dev/null
    mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -d -- "$cur")
}

complete -F _rmipc rmipc
