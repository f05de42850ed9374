# Completion of rmini in bash: commands, options and files; then sections and keys of the file, as
# rmini itself lists them. Installed where bash-completion finds it by its name.
# shellcheck shell=bash

# A word of the command line without its quotes and backslashes, in $REPLY.
_rmini_plain() {
    REPLY=${1//[\\\"\']/}
    [[ $REPLY != \~/* ]] || REPLY=$HOME/${REPLY#\~/}
}

# Offers those of the names that begin as the current word does, whatever the case of their letters.
# One that would be taken for an option is offered behind "--".
_rmini_offer() {
    local current name
    _rmini_plain "$cur"
    current=${REPLY,,}
    for name; do
        [[ ${name,,} == "$current"* ]] || continue
        if [[ -z $ended && $name == -[!0-9]* ]]; then
            [[ -n $cur ]] || COMPREPLY+=("-- $(printf '%q' "$name")")
            continue
        fi
        case $cur in
        [\"\']*) COMPREPLY+=("$name") ;; # bash keeps the quote that was typed
        *) COMPREPLY+=("$(printf '%q' "$name")") ;;
        esac
    done
}

_rmini_offer_files() {
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
}

_rmini_offer_options() {
    local options='--quiet --help --version'
    case $command in
    '') options+=' --check' ;;
    get) options+=' --default' ;;
    set) options+=' --create --insert --diff --dry-run' ;;
    delete) options+=' --diff --dry-run' ;;
    sections) options+=' --null' ;;
    keys) options+=' --null --values' ;;
    check) options+=' --ignore' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
}

_rmini() {
    local rmini=$1 cur=${COMP_WORDS[COMP_CWORD]} command='' ended='' names=() operands=() word i
    local kinds='before-section behind-empty byte-order-mark duplicate-key duplicate-section
        hash-comment header-open header-text indented key-blank left-over lone-return mixed-ends
        no-equals no-newline no-room runs-on value-blank value-long zero-byte'
    COMPREPLY=()

    # What stands before the word: the command and its operands.
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $ended$word in
        --) ended=: ;;
        --check) command=check ;;
        -d | --default | -x | --ignore)
            ((++i))
            [[ ${COMP_WORDS[i]} != '=' ]] || ((++i)) # bash divides words there
            if ((i >= COMP_CWORD)); then
                [[ $cur != '=' ]] || cur=
                [[ $word != -x && $word != --ignore ]] ||
                    mapfile -t COMPREPLY < <(compgen -W "$kinds" -- "$cur")
                return
            fi
            ;;
        -[0-9]* | -) operands+=("$word") ;;
        -*) ;;
        *)
            if [[ -z $command ]]; then
                command=$word
            else
                operands+=("$word")
            fi
            ;;
        esac
    done

    if [[ -z $ended && $cur == -* ]]; then
        _rmini_offer_options
        return
    fi
    if [[ -z $command ]]; then
        _rmini_offer get set delete sections keys check recover
        return
    fi
    local file section key
    _rmini_plain "${operands[0]-}" && file=$REPLY
    _rmini_plain "${operands[1]-}" && section=$REPLY
    _rmini_plain "${operands[2]-}" && key=$REPLY
    case $command:${#operands[@]} in
    check:* | *:0) _rmini_offer_files ;;
    get:1 | set:1 | delete:1 | keys:1)
        mapfile -d '' -t names < <("$rmini" sections -qz -- "$file" 2>/dev/null)
        _rmini_offer "${names[@]}"
        ;;
    get:2 | set:2 | delete:2)
        mapfile -d '' -t names < <("$rmini" keys -qz -- "$file" "$section" 2>/dev/null)
        _rmini_offer "${names[@]}"
        ;;
    set:3)
        # The value that is to be changed.
        mapfile -t names < <("$rmini" get -q -- "$file" "$section" "$key" 2>/dev/null)
        [[ ${names[*]} == - ]] || _rmini_offer "${names[@]}" # "-" is standard input
        ;;
    esac
}

complete -F _rmini rmini
