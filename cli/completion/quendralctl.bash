# bash completion for quendralctl                             -*- shell-script -*-
# Verbs, options, and the instance names of the installation in use (taken
# from `quendralctl list --names` as the line is completed, with --home if
# one was given).

# The directory of `--home DIR` as the shell will pass it: the line being
# completed holds the word as typed, so a leading ~ or ~user is expanded
# here as the shell would (~user from the user database; one unknown stays
# as it is, as the shell leaves it).
_quendralctl_home() {
    local dir=$1 user top
    if [[ $dir == '~'* ]]; then
        user=${dir%%/*}
        user=${user#'~'}
        if [[ -z $user ]]; then
            top=$HOME
        else
            top=$(getent passwd -- "$user" 2>/dev/null | cut -d: -f6)
        fi
        [[ -n $top ]] && dir=$top${dir:${#user}+1}
    fi
    printf '%s' "$dir"
}

_quendralctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local verbs="list status start stop restart log enable disable env completion"
    local i verb="" home=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        --home)
            home=(--home "$(_quendralctl_home "${COMP_WORDS[i + 1]}")")
            ((i++))
            ;;
        --home=*) home=("${COMP_WORDS[i]}") ;;
        -*) ;;
        *)
            verb=${COMP_WORDS[i]}
            break
            ;;
        esac
    done

    COMPREPLY=()
    if [[ $prev == --home ]]; then
        mapfile -t COMPREPLY < <(compgen -d -- "$cur")
        return
    fi
    if [[ -z $verb ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$verbs --home --help --version" -- "$cur")
        return
    fi

    local opts=""
    case $verb in
    list) opts="--json --names" ;;
    status) opts="--json -n" ;;
    start | restart) opts="--all --wait --ready" ;;
    stop) opts="--all --wait" ;;
    log) opts="-n -f" ;;
    enable | disable) opts="--all" ;;
    completion)
        mapfile -t COMPREPLY < <(compgen -W "bash zsh fish" -- "$cur")
        return
        ;;
    *) return ;;
    esac
    [[ $prev == --wait || $prev == -n ]] && return
    if [[ $cur == -* || $verb == list ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$opts" -- "$cur")
        return
    fi

    # Instance names may hold blanks and quotes: match them as lines and
    # quote each for the command line.
    local name
    while IFS= read -r name; do
        [[ $name == "$cur"* ]] && COMPREPLY+=("$(printf '%q' "$name")")
    done < <("${COMP_WORDS[0]}" "${home[@]}" list --names 2>/dev/null)
}
complete -F _quendralctl quendralctl
