# Completion of vendaractl(1) for bash-completion. Package identifiers are read from the package database's
# directory: asking the service would start it, and take from it what it has to tell the user once.

_vendaractl_packages() {
    local root
    root=$(sed -n 's/^[[:blank:]]*root_directory[[:blank:]]*=[[:blank:]]*//; T; s/[[:blank:]]*$//; p' \
        /etc/zul/zul.conf 2>/dev/null)
    cd "${root:-/opt/app}" 2>/dev/null && compgen -d -- "$1"
}

_vendaractl() {
    local cur words cword
    _init_completion || return

    local word command=
    for word in "${words[@]:1:cword-1}"; do
        if [[ $word != -* ]]; then
            command=$word
            break
        fi
    done

    if [[ $cur == -* ]]; then
        local options='--help --json'
        case $command in
            '') options+=' --version' ;;
            install | remove) options+=' --no-wait' ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
        return
    fi
    case $command in
        '')
            local commands='install remove list operations info start restart monitor'
            mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$cur")
            ;;
        install)
            _filedir rpm
            ;;
        remove | start | restart)
            mapfile -t COMPREPLY < <(_vendaractl_packages "$cur")
            ;;
    esac
} && complete -F _vendaractl vendaractl
