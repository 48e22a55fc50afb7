# Completion of xcplumo-cli and xcplumo-sim for bash; those for zsh and fish run it as `bash FILE LINE`.
#
# Commands and options are read from the help texts, names of signals and events from the A2L that the options on the
# line lead to, names of recorded signals from the recording on the line. No ECU is asked. What takes longer than
# XCPLUMO_COMPLETION_SECONDS (1) offers nothing.

_xcplumo_ask() { timeout "${XCPLUMO_COMPLETION_SECONDS:-1}" "$@" 2>/dev/null </dev/null; }

# The options and commands that a help text lists.
_xcplumo_help_words() {
    _xcplumo_ask "$@" --help | sed -nE 's/^  (-[^ ]+).*/\1/p; /^Subcommands:/,/^$/s/^  ([a-z-]+) .*/\1/p' | tr , '\n'
}

# $1: the word; then those that may come.
_xcplumo_offer() { mapfile -t COMPREPLY < <(compgen -W "${*:2}" -- "$1"); }

_xcplumo_files() {
    COMPREPLY=()
    files=yes
    compopt -o filenames -o default 2>/dev/null
}

# The path after a word of the line that is one of these options, or in it: "-c FILE", "--config=FILE".
_xcplumo_path_after() { # OPTION...
    local i option
    for ((i = 1; i < ${#words[@]} - 1; ++i)); do
        for option; do
            [ "${words[i]}" != "$option" ] || printf '%s\n' "${words[i + 1]/#\~\//$HOME/}"
            [ "${words[i]}" = "${words[i]#"$option"=}" ] || printf '%s\n' "${words[i]#"$option"=}"
        done
    done | tail -n 1
}

# Of what the A2L calls an event; a name that a shell would take apart is offered as its number.
_xcplumo_events() { # BEGIN or SIGNAL@BEGIN
    local config a2l
    config=$(_xcplumo_path_after -c --config)
    a2l=$(_xcplumo_path_after --a2l)
    if [ -z "$a2l" ] && [ -r "$config" ]; then
        a2l=$(sed -nE 's/.*"a2l"[[:space:]]*:[[:space:]]*"([^"]*)".*/\1/p' "$config" | head -n 1)
        [[ $a2l = /* ]] || a2l=$(dirname "$config")/$a2l
    fi
    [ -f "$a2l" ] || return 0
    mapfile -t COMPREPLY < <(timeout "${XCPLUMO_COMPLETION_SECONDS:-1}" tr -s '[:space:]' ' ' <"$a2l" |
        grep -aoE '/begin EVENT "[^"]*" "[^"]*" (0x)?[0-9A-Fa-f]+' |
        WORD=$1 awk -F'"' '{
            name = $2 ~ /^[A-Za-z0-9_.-]+$/ ? $2 : substr($5, 2)
            offered = substr(ENVIRON["WORD"], 1, index(ENVIRON["WORD"], "@")) name
            if (index(offered, ENVIRON["WORD"]) == 1 && !seen[offered]++) print offered
        }')
}

_xcplumo_recorded() { # WORD: signals of the recording on the line
    local i
    for ((i = 1; i < ${#words[@]}; ++i)); do
        [ -f "${words[i]}/meta.json" ] || continue
        mapfile -t COMPREPLY < <(_xcplumo_ask "${words[0]}" recording info "${words[i]}" --json |
            grep -oE '"name":"[^"]*","type"' | cut -d '"' -f 4 |
            WORD=$1 awk 'index($0, ENVIRON["WORD"]) == 1 && !seen[$0]++')
        return
    done
}

_xcplumo_names() { # WORD [-m | -p], with the words of the line in `words`
    local place=() path
    path=$(_xcplumo_path_after -c --config)
    [ -z "$path" ] || place+=(-c "$path")
    path=$(_xcplumo_path_after --a2l)
    [ -z "$path" ] || place+=(--a2l "$path")
    mapfile -t COMPREPLY < <(_xcplumo_ask "${words[0]}" "${place[@]}" list "${@:2}" ${1:+"$1"} |
        WORD=$1 awk 'index($2, ENVIRON["WORD"]) == 1 { print $2 }')
}

_xcplumo_complete() {
    COMPREPLY=()
    files='' word=''
    local line=${COMP_LINE:0:COMP_POINT} words=() command=() events known i before
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
    before=${words[-2]}
    # Several signals may come after one -s.
    for ((i = ${#words[@]} - 2; i > 0; --i)); do
        [[ ${words[i]} = -* ]] || continue
        [[ $word = -* || ! ${words[i]} =~ ^(-s|--signal)$ ]] || before=-s
        break
    done
    case $before in
        -c | --config | --a2l | --hex | --signals-from | --serial* | -o | --output | -r | --record | --memory-file | --write-*) _xcplumo_files ;;
        -i | --interface | --can) _xcplumo_offer "$word" "$(ls /sys/class/net)" ;;
        --event)
            _xcplumo_events "$word"
            events=("${COMPREPLY[@]}")
            _xcplumo_offer "$word" auto
            COMPREPLY+=("${events[@]}")
            ;;
        --reconnect) _xcplumo_offer "$word" abort retry retry_forever ;;
        --fail-on) _xcplumo_offer "$word" losses outage empty ;;
        -s | --signal)
            case ${command[*]}:$word in
                measure:*@*) _xcplumo_events "$word" ;;
                measure:*) _xcplumo_names "$word" -m ;;
                'recording show:'* | export:*) _xcplumo_recorded "$word" ;;
            esac
            ;;
        *)
            case ${command[*]}:$word in
                *:-* | :* | recording:*) _xcplumo_offer "$word" "$(_xcplumo_help_words "${words[0]}" "${command[@]}")" ;;
                get:* | describe:* | list:*) _xcplumo_names "$word" ;;
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

# bash takes its own last word for the one to complete, which begins behind the last @ = or :
_xcplumo_bash() {
    _xcplumo_complete
    local kept=${word%"${word##*["$COMP_WORDBREAKS"]}"}
    COMPREPLY=("${COMPREPLY[@]#"$kept"}")
}

# Only a sourced file may return.
if (return 0 2>/dev/null); then
    complete -F _xcplumo_bash xcplumo-cli xcplumo-sim
else
    COMP_LINE=$1 COMP_POINT=${#1}
    _xcplumo_complete
    [ -z "$files" ] || echo :files
    [ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\n' "${COMPREPLY[@]}"
fi
