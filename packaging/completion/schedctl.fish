# Completion of schedctl.
function __schedctl_complete
    set -l words (commandline -opc) (commandline -ct)
    set -l found (schedctl --complete $words[2..] 2>/dev/null)
    # fish offers only words that begin with the word before the cursor, so each offer keeps "--host=" in front of it.
    set -l option (string match -r '^--[^=]*=' -- $words[-1]; or echo '')
    switch "$found[1]"
        case :file
            printf '%s\n' $option(__fish_complete_path (string replace -r '^--[^=]*=' '' -- $words[-1]))
        case :host
            printf '%s\n' $option(__fish_print_hostnames)
        case '*'
            printf '%s\n' $found
    end
end

complete -c schedctl -f -a '(__schedctl_complete)'
