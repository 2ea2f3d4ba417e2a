# bash completion for dhcpsnoopctl
_dhcpsnoopctl()
{
    local cur prev words cword
    _init_completion || return
    case $prev in
        --socket) _filedir; return ;;
        --timeout) return ;;
    esac
    # the words after the options: command, then its arguments
    local -a args=()
    local i
    for ((i = 1; i < cword; i++)); do
        case ${words[i]} in
            --socket|--timeout) ((i++)) ;;
            -*) ;;
            *) args+=("${words[i]}") ;;
        esac
    done
    local opts="--socket --timeout --json --numeric --sync --help"
    local ifs
    ifs=$(ls /sys/class/net 2>/dev/null)
    case ${#args[@]} in
        0) COMPREPLY=($(compgen -W "global interface vlan binding server-ip $opts" -- "$cur")) ;;
        1)
            case ${args[0]} in
                global) COMPREPLY=($(compgen -W "show enable enterprise-number hw-notify server-learn clear-statistics debug sync-packet" -- "$cur")) ;;
                interface) COMPREPLY=($(compgen -W "show $ifs" -- "$cur")) ;;
                vlan) COMPREPLY=($(compgen -W "show" -- "$cur")) ;;
                binding) COMPREPLY=($(compgen -W "show add set bind unbind delete" -- "$cur")) ;;
                server-ip) COMPREPLY=($(compgen -W "show add delete check" -- "$cur")) ;;
            esac ;;
        2)
            case ${args[0]} in
                interface) COMPREPLY=($(compgen -W "show enable trust version option82 option18 option37 max-users relay-address clear-statistics set get" -- "$cur")) ;;
                vlan) COMPREPLY=($(compgen -W "show enable max-users" -- "$cur")) ;;
                global)
                    case ${args[1]} in
                        enable|hw-notify|server-learn) COMPREPLY=($(compgen -W "on off" -- "$cur")) ;;
                        debug) COMPREPLY=($(compgen -W "off info dump all" -- "$cur")) ;;
                    esac ;;
                server-ip) [ "${args[1]}" != show ] && COMPREPLY=($(compgen -W "$ifs" -- "$cur")) ;;
            esac ;;
        *)
            case ${args[0]}:${args[2]:-} in
                interface:enable|interface:trust|vlan:enable) COMPREPLY=($(compgen -W "on off" -- "$cur")) ;;
                interface:version) COMPREPLY=($(compgen -W "ipv4 ipv6 both" -- "$cur")) ;;
                interface:option82) COMPREPLY=($(compgen -W "on off policy format circuit-id remote-id subopt9" -- "$cur")) ;;
                interface:option18|interface:option37) COMPREPLY=($(compgen -W "on off text typed format" -- "$cur")) ;;
            esac
            case ${args[0]}:${prev} in
                binding:interface) COMPREPLY=($(compgen -W "$ifs" -- "$cur")) ;;
                binding:*) [ ${#args[@]} -ge 3 ] && COMPREPLY=($(compgen -W "mac vlan interface attribute unbound" -- "$cur")) ;;
            esac ;;
    esac
}
complete -F _dhcpsnoopctl dhcpsnoopctl
