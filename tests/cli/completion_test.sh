#!/usr/bin/env bash
# The completion scripts that `quendralctl completion SHELL` prints (and the
# package installs): each loads in its shell, and completes verbs, options
# and the instance names of a real installation.
#
#   completion_test.sh QUENDRALCTL
set -uo pipefail
ctl=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

for name in database sales "my db" "it's"; do
    mkdir -p "$tmp/home/$name"
    printf '[database]\n' >"$tmp/home/$name/quendral.ini"
done
# The scripts run the tool by its name, as an installed one is.
mkdir -p "$tmp/path" "$tmp/zfunc"
ln -s "$ctl" "$tmp/path/quendralctl"
export PATH="$tmp/path:$PATH"
"$ctl" completion bash >"$tmp/quendralctl.bash"
"$ctl" completion zsh >"$tmp/zfunc/_quendralctl"
"$ctl" completion fish >"$tmp/quendralctl.fish"

passed=0 failed=0
expect() { # NAME EXPECTED ACTUAL
    if [ "$2" == "$3" ]; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        printf 'FAIL %s\n  expected: %q\n  actual:   %q\n' "$1" "$2" "$3"
    fi
}
nl=$'\n'

# The installation written from a user's home, as ~user/...: the user running
# the tests, whose home must exist for the path to lead anywhere.
me=$(id -un)
my_home=$(getent passwd "$me" | cut -d: -f6)
if [ -d "$my_home" ]; then
    from_user="~$me/$(realpath -m --relative-to="$my_home" "$tmp/home")"
else
    echo "SKIP ~user cases: the home of $me ($my_home) does not exist"
    from_user="$tmp/home"
fi

# bash: through the completion function, as readline calls it.
bash_complete() { # WORDS... (the last one is the word being completed)
    bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _quendralctl
             printf "%s\n" "${COMPREPLY[@]}"' _ "$tmp/quendralctl.bash" "$@" | sort
}
bash -n "$tmp/quendralctl.bash"
expect "bash loads" 0 $?
expect "bash verbs" "start${nl}status${nl}stop" "$(bash_complete quendralctl st)"
expect "bash options" "--json${nl}--names" "$(bash_complete quendralctl list --)"
expect "bash start options" "--all${nl}--ready${nl}--wait" "$(bash_complete quendralctl start --)"
expect "bash stop options" "--all${nl}--wait" "$(bash_complete quendralctl stop --)"
expect "bash names" "database${nl}it\\'s${nl}my\\ db${nl}sales" \
    "$(bash_complete quendralctl --home "$tmp/home" start "")"
expect "bash name prefix" "my\\ db" "$(bash_complete quendralctl --home "$tmp/home" log m)"
# --home as typed: the shell would expand ~ and ~user, so the completion does.
expect "bash names from ~" "database${nl}it\\'s${nl}my\\ db${nl}sales" \
    "$(HOME=$tmp bash_complete quendralctl --home '~/home' start "")"
expect "bash names from ~user" "database${nl}it\\'s${nl}my\\ db${nl}sales" \
    "$(bash_complete quendralctl --home "$from_user" start "")"
expect "bash shells" "bash" "$(bash_complete quendralctl completion ba)"

# zsh: the script parses, and its name lookup, run by zsh with the
# completion builtins it calls standing in, gives the installation's names.
# (zsh's completion widgets run only in an interactive shell.)
zsh -n "$tmp/zfunc/_quendralctl"
expect "zsh loads" 0 $?
zsh_names=$(zsh -f -c '
    compadd() { [[ $1 == -a ]] && print -rl -- ${(P)2} }
    _call_program() { shift; "$@" }
    _arguments() { return 1 }
    source "$1"
    typeset -A opt_args; opt_args[--home]=$2
    _quendralctl_program=quendralctl _quendralctl_instances' _ "$tmp/zfunc/_quendralctl" "$tmp/home")
expect "zsh names" "database${nl}it's${nl}my db${nl}sales" "$zsh_names"
zsh_names_from() { # HOME-DIR --home-WORD
    HOME=$1 zsh -f -c '
        compadd() { [[ $1 == -a ]] && print -rl -- ${(P)2} }
        _call_program() { shift; "$@" }
        _arguments() { return 1 }
        source "$1"
        typeset -A opt_args; opt_args[--home]=$2
        _quendralctl_program=quendralctl _quendralctl_instances' _ "$tmp/zfunc/_quendralctl" "$2"
}
expect "zsh names from ~" "database${nl}it's${nl}my db${nl}sales" "$(zsh_names_from "$tmp" '~/home')"
expect "zsh names from ~user" "database${nl}it's${nl}my db${nl}sales" \
    "$(zsh_names_from "$HOME" "$from_user")"

# fish: through its own completion command.
fish_complete() {
    fish -c "source $(printf '%q' "$tmp/quendralctl.fish"); complete -C$(printf '%q' "$1")" | cut -f1
}
fish -n "$tmp/quendralctl.fish"
expect "fish loads" 0 $?
expect "fish verbs" "start${nl}status${nl}stop" "$(fish_complete 'quendralctl st')"
expect "fish options" "--all${nl}--wait" "$(fish_complete 'quendralctl stop --')"
expect "fish start options" "--all${nl}--ready${nl}--wait" "$(fish_complete 'quendralctl start --' | sort)"
expect "fish names" "database${nl}it's${nl}my db${nl}sales" \
    "$(fish_complete "quendralctl --home $tmp/home restart ")"
expect "fish names from ~" "database${nl}it's${nl}my db${nl}sales" \
    "$(HOME=$tmp fish_complete "quendralctl --home ~/home restart ")"
expect "fish names from ~user" "database${nl}it's${nl}my db${nl}sales" \
    "$(fish_complete "quendralctl --home $from_user restart ")"

echo "completion: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
