#compdef xcplumo-cli xcplumo-sim
# Completion for zsh: asks the one for bash, which lies in the same tree.

local -a offered ended
offered=("${(@f)$(bash "${functions_source[_xcplumo-cli]:A:h:h:h}/bash-completion/completions/xcplumo-cli" "$LBUFFER" 2>/dev/null)}")
if [[ $offered[1] == :files ]]; then
    _files
    return
fi
ended=(${(M)offered:#*=})
offered=(${offered:#*=})
compadd -a offered
compadd -S '' -a ended
