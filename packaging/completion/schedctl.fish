# Completion of schedctl.
function __schedctl_complete
    set -l words (commandline -opc) (commandline -ct)
    set -l found (schedctl --complete $words[2..] 2>/dev/null)
    switch "$found[1]"
        case :file
            __fish_complete_path (string replace -r '^--[^=]*=' '' -- $words[-1])
        case :host
            __fish_print_hostnames
        case '*'
            printf '%s\n' $found
    end
end

complete -c schedctl -f -a '(__schedctl_complete)'
