# bash completion for mv3300ctl(1)

_mv3300ctl()
{
    local cur prev words cword
    _init_completion -n = 2>/dev/null || {
        cur=${COMP_WORDS[COMP_CWORD]}
        prev=${COMP_WORDS[COMP_CWORD - 1]}
        words=("${COMP_WORDS[@]}")
        cword=$COMP_CWORD
    }

    case $prev in
        --h264 | --preview) mapfile -t COMPREPLY < <(compgen -W "on off" -- "$cur"); return ;;
        --mode) mapfile -t COMPREPLY < <(compgen -W "cbr vbr" -- "$cur"); return ;;
        --bitrate) mapfile -t COMPREPLY < <(compgen -W "500k 1M 2M 4M 8M 10M" -- "$cur"); return ;;
        --height) mapfile -t COMPREPLY < <(compgen -W "270 360 540 720 1080" -- "$cur"); return ;;
        --file | --log-config) compopt -o default; return ;;
        --timing)
            mapfile -t COMPREPLY < <(compgen -W "1920x1080@60-0 1280x720@60-0" -- "$cur")
            return
            ;;
        --gop | --refreshrate | --timeout | --interval | --for | --to) return ;;
    esac

    local candidates="get set watch save check doctor bundle announce receive-kit"
    candidates+=" group --help --version"
    if ((cword > 1)); then
        case ${words[1]} in
            get)
                candidates="h264 gop mode bitrate preview height refreshrate"
                candidates+=" --json --timeout --help"
                ;;
            set)
                candidates="--h264 --gop --mode --bitrate --preview --height --refreshrate"
                candidates+=" --save --json --timeout --help"
                ;;
            save) candidates="--dry-run --file --json --timeout --help" ;;
            check)
                candidates="--timing --dry-run --log-config --json --help"
                [[ $cur == -* ]] || compopt -o default
                ;;
            doctor) candidates="--json --help" ;;
            bundle)
                candidates="--mask --json --help"
                [[ $cur == -* ]] || compopt -o default
                ;;
            announce) candidates="--timing --none --query --json --help" ;;
            receive-kit) candidates="--sdp --mediamtx --players --to --file --json --help" ;;
            group) candidates="--file --json --help" ;;
            watch) candidates="--interval --for --json --timeout --help" ;;
            *) candidates="" ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$cur")
} && complete -F _mv3300ctl mv3300ctl
