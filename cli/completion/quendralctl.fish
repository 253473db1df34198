# fish completion for quendralctl: verbs, options, and the instance names of
# the installation in use (from `quendralctl list --names`, with --home if one
# was given).

# The directory of `--home DIR` as fish will pass it: the command line holds
# the word as typed, so a leading ~ or ~user is expanded here as fish would
# (~user from the user database; one unknown stays as it is).
function __quendralctl_home
    set -l dir $argv[1]
    if string match -q -- '~*' $dir
        set -l user (string replace -r -- '^~([^/]*).*$' '$1' $dir)
        set -l rest (string replace -r -- '^~[^/]*' '' $dir)
        set -l top $HOME
        if test -n "$user"
            set top (getent passwd -- $user 2>/dev/null | string split -f6 :)
        end
        if test -n "$top"
            set dir "$top$rest"
        end
    end
    printf '%s\n' $dir
end

function __quendralctl_instances
    set -l cmd (commandline -opc)
    set -l home
    set -l i (contains -i -- --home $cmd)
    and set home --home (__quendralctl_home $cmd[(math $i + 1)])
    command $cmd[1] $home list --names 2>/dev/null
end

set -l verbs list status start stop restart log enable disable env completion
complete -c quendralctl -f
complete -c quendralctl -n "not __fish_seen_subcommand_from $verbs" -l home -x -a '(__fish_complete_directories)' -d 'Installation directory'
complete -c quendralctl -n "not __fish_seen_subcommand_from $verbs" -l help -d 'Show the help'
complete -c quendralctl -n "not __fish_seen_subcommand_from $verbs" -l version -d 'Show the version'
complete -c quendralctl -n "not __fish_seen_subcommand_from $verbs" -a list -d 'List the instances with their status'
complete -c quendralctl -n "not __fish_seen_subcommand_from $verbs" -a status -d "Show an instance's server, ports and log"
complete -c quendralctl -n "not __fish_seen_subcommand_from $verbs" -a start -d "Start an instance's server"
complete -c quendralctl -n "not __fish_seen_subcommand_from $verbs" -a stop -d "Stop an instance's server"
complete -c quendralctl -n "not __fish_seen_subcommand_from $verbs" -a restart -d "Stop and start an instance's server"
complete -c quendralctl -n "not __fish_seen_subcommand_from $verbs" -a enable -d "Start an instance's server at login"
complete -c quendralctl -n "not __fish_seen_subcommand_from $verbs" -a disable -d "No longer start it at login"
complete -c quendralctl -n "not __fish_seen_subcommand_from $verbs" -a log -d "Show and follow an instance's log"
complete -c quendralctl -n "not __fish_seen_subcommand_from $verbs" -a env -d 'Print the environment a started server inherits'
complete -c quendralctl -n "not __fish_seen_subcommand_from $verbs" -a completion -d 'Print a shell completion script'
complete -c quendralctl -n "__fish_seen_subcommand_from list" -l json -d 'Print JSON'
complete -c quendralctl -n "__fish_seen_subcommand_from list" -l names -d 'Print the names alone'
complete -c quendralctl -n "__fish_seen_subcommand_from status" -l json -d 'Print JSON'
complete -c quendralctl -n "__fish_seen_subcommand_from status" -s n -x -d 'Number of log lines'
complete -c quendralctl -n "__fish_seen_subcommand_from start stop restart enable disable" -l all -d 'Every instance'
complete -c quendralctl -n "__fish_seen_subcommand_from start stop restart" -l wait -x -d 'Seconds to wait'
complete -c quendralctl -n "__fish_seen_subcommand_from start restart" -l ready -d 'With --wait, until the server listens on a TCP port'
complete -c quendralctl -n "__fish_seen_subcommand_from log" -s n -x -d 'Number of lines'
complete -c quendralctl -n "__fish_seen_subcommand_from log" -s f -d 'Follow what is appended'
complete -c quendralctl -n "__fish_seen_subcommand_from completion" -x -a 'bash zsh fish'
complete -c quendralctl -n "__fish_seen_subcommand_from status start stop restart log enable disable" -x -a '(__quendralctl_instances)'
