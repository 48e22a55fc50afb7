# Completion of xcplumo-cli and xcplumo-sim for bash.
#
# Commands and options are read from the help texts, names of signals from the A2L that the options on the line lead
# to. No ECU is asked. What takes longer than XCPLUMO_COMPLETION_SECONDS (1) offers nothing.

_xcplumo_ask() { timeout "${XCPLUMO_COMPLETION_SECONDS:-1}" "$@" 2>/dev/null </dev/null; }

# The options and commands that a help text lists.
_xcplumo_help_words() {
    _xcplumo_ask "$@" --help | sed -nE 's/^  (-[^ ]+).*/\1/p; /^Subcommands:/,/^$/s/^  ([a-z-]+) .*/\1/p' | tr , '\n'
}

# $1: the word; then those that may come.
_xcplumo_offer() { mapfile -t COMPREPLY < <(compgen -W "${*:2}" -- "$1"); }

_xcplumo_files() { compopt -o filenames -o default 2>/dev/null; }

_xcplumo_names() { # WORD [-m | -p], with the words of the line in `words`
    local place=() i
    for ((i = 1; i < ${#words[@]} - 1; ++i)); do
        case ${words[i]} in
            -c | --config | --a2l) place+=("${words[i]}" "${words[i + 1]/#\~\//$HOME/}") ;;
            --config=* | --a2l=*) place+=("${words[i]}") ;;
        esac
    done
    mapfile -t COMPREPLY < <(_xcplumo_ask "${words[0]}" "${place[@]}" list "${@:2}" ${1:+"$1"} |
        WORD=$1 awk 'index($2, ENVIRON["WORD"]) == 1 { print $2 }')
}

_xcplumo_complete() {
    COMPREPLY=()
    local line=${COMP_LINE:0:COMP_POINT} words=() word='' command=() known i
    # The shell's own words end at each of @ = : too.
    mapfile -t words < <(xargs printf '%s\n' <<<"$line" 2>/dev/null)
    case $line in
        *[[:space:]]) words+=('') ;;
    esac
    [ ${#words[@]} -gt 1 ] || return 0
    word=${words[-1]}
    known=" $(_xcplumo_help_words "${words[0]}" | grep -v ^- | tr '\n' ' ')"
    for ((i = 1; i < ${#words[@]} - 1; ++i)); do
        [ ${#command[@]} -eq 0 ] && [[ ${words[i]} != -* && $known == *" ${words[i]} "* ]] && command=("${words[i]}")
        [[ ${command[0]} = recording && ${words[i]} =~ ^(info|check|repair|show)$ ]] && command=(recording "${words[i]}")
    done
    case ${words[-2]} in
        -c | --config | --a2l | --signals-from | --serial* | -o | --output | -r | --record | --memory-file | --write-*) _xcplumo_files ;;
        -i | --interface | --can) _xcplumo_offer "$word" "$(ls /sys/class/net)" ;;
        --event) _xcplumo_offer "$word" auto ;;
        --reconnect) _xcplumo_offer "$word" abort retry retry_forever ;;
        --fail-on) _xcplumo_offer "$word" losses outage empty ;;
        -s | --signal) [ "${command[0]}" != measure ] || _xcplumo_names "$word" -m ;;
        *)
            case ${command[*]}:$word in
                *:-* | :* | recording:*) _xcplumo_offer "$word" "$(_xcplumo_help_words "${words[0]}" "${command[@]}")" ;;
                get:*) _xcplumo_names "$word" ;;
                set:*=*) ;;
                set:*)
                    compopt -o nospace 2>/dev/null
                    case " ${words[*]} " in
                        *' -m '* | *' --measurements '*) _xcplumo_names "$word" ;;
                        *) _xcplumo_names "$word" -p ;;
                    esac
                    COMPREPLY=("${COMPREPLY[@]/%/=}")
                    ;;
                'recording '* | export:* | save-config:*) _xcplumo_files ;;
            esac
            ;;
    esac
}

complete -F _xcplumo_complete xcplumo-cli xcplumo-sim
