# Fish completion for bhctl. bhctl itself tells the words: `bhctl complete`.

function __bhctl_command
    set -l commands (bhctl complete commands) help
    for word in (commandline -opc)[2..-1]
        contains -- $word $commands; and echo $word; and return
    end
end

function __bhctl_has_command
    test -n "$(__bhctl_command)"
end

complete -c bhctl -f
complete -c bhctl -n 'not __bhctl_has_command' -a '(bhctl complete commands) help'
complete -c bhctl -n __bhctl_has_command -a '(bhctl complete words (__bhctl_command))'
complete -c bhctl -n 'string match -q -- "-*" (commandline -ct)' -a '(bhctl complete options (__bhctl_command))'
complete -c bhctl -l to -x -a '(bhctl complete targets 2>/dev/null)'
complete -c bhctl -l mac -x -a '(bhctl complete targets 2>/dev/null)'
complete -c bhctl -s i -l interface -x -a '(ls /sys/class/net)'
complete -c bhctl -l color -x -a 'auto always never'
complete -c bhctl -n 'test "$(__bhctl_command)" = upgrade' -F
