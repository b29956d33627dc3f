# bash completion for vskvs: commands, options, files, and the names of trace buffers.

# Where the trace buffers are: --state-dir on this line, or what the environment names.
_vskvs_buffers()
{
    local state=${VS_STATE_DIR:-${XDG_STATE_HOME:-$HOME/.local/state}/vs} i
    [[ -z ${VS_STATE_DIR:-} && $EUID -eq 0 ]] && state=/var/lib/vs
    for ((i = 1; i < COMP_CWORD; ++i)); do
        [[ ${COMP_WORDS[i]} == --state-dir ]] && state=${COMP_WORDS[i + 1]}
    done
    find "$state/ringlog" -type f -printf '%P\n' 2>/dev/null
}

_vskvs()
{
    local -A verbs=(
        [object]="add show list select delete import"
        [client]="create add update show list delete"
        [registration]="create add show list"
    )
    local -A options=(
        [vskvs]="--version"
        ["object add"]="--select --versions --optional-compatible --scope --changed"
        ["object show"]="--json" ["object list"]="--json" ["object import"]="--update"
        ["client add"]="--jid --pid --data" ["client update"]="--jid --pid --data"
        ["client show"]="--json" ["client list"]="--json"
        ["registration show"]="--json" ["registration list"]="--json"
        [trace]="--follow --job --operation --since --json"
        [log]="--job --registration --since --until -n --reverse --follow --json"
        [watch]="--job --registration -n --json"
        [status]="--json" [check]="--json" [dump]="--salvage"
    )
    local nouns="init object client registration trace log watch status check dump restore"
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command="" i offers=""
    COMPREPLY=()

    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
        --state-dir) ((++i)) ;;
        -*) ;;
        *)
            if [[ -z $command ]]; then
                command=${COMP_WORDS[i]}
            elif [[ -n ${verbs[$command]:-} ]]; then
                command+=" ${COMP_WORDS[i]}"
                break
            fi
            ;;
        esac
    done

    case $previous in
    --state-dir)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
        return
        ;;
    --job)
        offers=$(_vskvs_buffers | sed -n 's|^install/vs/kvs/\([0-9]*\)/.*|\1|p' | sort -u)
        mapfile -t COMPREPLY < <(compgen -W "$offers" -- "$current")
        return
        ;;
    --select | --versions | --optional-compatible | --scope | --changed | --jid | --pid | --data | \
        --operation | --since | --until | --registration | -n)
        return
        ;;
    esac

    if [[ $current == -* ]]; then
        offers="--help --state-dir ${options[${command:-vskvs}]:-}"
    elif [[ -z $command ]]; then
        offers=$nouns
    elif [[ -n ${verbs[$command]:-} ]]; then
        offers=${verbs[$command]}
    elif [[ $command == trace ]]; then
        offers=$(_vskvs_buffers)
    elif [[ $command == restore || $command == "object import" ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
    fi
    mapfile -t COMPREPLY < <(compgen -W "$offers" -- "$current")
}

complete -F _vskvs vskvs
