# bash completion for mv3300-panel(8)

_mv3300_panel()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    case $prev in
        --tls-cert | --tls-key | --password-file | --state | --preview | --param | --config)
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return ;;
        --root) mapfile -t COMPREPLY < <(compgen -d -- "$cur"); return ;;
        --listen | --host | --viewers | --connections | --stream-port) return ;;
    esac
    local candidates="--listen --tls-cert --tls-key --host --password-file --viewers --connections"
    candidates+=" --root --state --preview --param --stream-port --set-password --config"
    candidates+=" --version --help"
    mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$cur")
} && complete -F _mv3300_panel mv3300-panel
