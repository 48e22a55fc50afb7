# Completion for fish: asks the one for bash, which lies in the same tree.

set -g __xcplumo_completion (status dirname)/../../bash-completion/completions/xcplumo-cli

function __xcplumo_offer
    set -l offered (bash $__xcplumo_completion (commandline -cp | string collect) 2>/dev/null)
    if test "$offered[1]" = :files
        __fish_complete_path (commandline -ct)
    else
        string join \n -- $offered
    end
end

complete -c xcplumo-cli -f -a '(__xcplumo_offer)'
complete -c xcplumo-sim -f -a '(__xcplumo_offer)'
