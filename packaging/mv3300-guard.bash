# bash completion for mv3300-guard(8)

_mv3300_guard()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    case $prev in
        --device | --folder) mapfile -t COMPREPLY < <(compgen -f -- "$cur"); return ;;
        --also | --preview-rate | --stall | --budget) return ;;
    esac
    local candidates="--also --preview-rate --stall --budget --no-restart --no-announce --sap"
    candidates+=" --device --folder --help --version"
    mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$cur")
} && complete -F _mv3300_guard mv3300-guard
