# bash completion for quorctl(1)

_quorctl()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=
    ((COMP_CWORD > 0)) && prev=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()

    # The value of an option. Bash takes "=" for a word of its own.
    case $prev in
        --unix | --file)
            compopt -o filenames 2> /dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$cur") # names may have blanks
            return
            ;;
        --host)
            COMPREPLY=($(compgen -A hostname -- "$cur"))
            return
            ;;
        --port | --timeout | -c | --count | -i | --interval | --data | --hex | --type | --user1 | \
            --user2 | --expect | --connections | --requests | --seconds | --size | --pipeline)
            return
            ;;
    esac

    # The command, and the one of log or config: the first words that are neither options nor their values.
    local word command= subcommand= skip=
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [[ -n $skip ]]; then
            skip=
            continue
        fi
        case $word in
            --host | --port | --unix | --timeout) skip=1 ;;
            -*) ;;
            *)
                if [[ -z $command ]]; then
                    command=$word
                elif [[ -z $subcommand ]]; then
                    subcommand=$word
                fi
                ;;
        esac
    done

    local words='' options='--host --port --unix --timeout --json --help'
    case $command in
        '')
            words='ping version pid name log config send wait monitor bench modem'
            options+=' --version'
            ;;
        ping) options+=' --count --interval' ;;
        log)
            local levels='emerg alert crit err warning notice info debug'
            if [[ -z $subcommand ]]; then
                words='list set'
            elif [[ $subcommand == set && $cur == = ]]; then
                COMPREPLY=($(compgen -W "$levels"))
                return
            elif [[ $subcommand == set && $prev == = ]]; then
                words=$levels
            fi
            ;;
        config)
            if [[ -z $subcommand ]]; then
                words='get set'
            elif [[ $subcommand == set && $cur == @* ]]; then
                compopt -o filenames 2> /dev/null
                mapfile -t COMPREPLY < <(compgen -P @ -f -- "${cur#@}")
                return
            fi
            ;;
        send)
            options+=' --data --hex --file --type --user1 --user2 --expect --no-answer'
            ;;
        monitor) options+=' --count --pings' ;;
        modem)
            if [[ -z $subcommand ]]; then
                words='imei imsi csq cell scan inbox sms whitelist at record'
            elif [[ $subcommand == whitelist && $prev == whitelist ]]; then
                words='list add remove'
            fi
            ;;
        bench) options+=' --connections --requests --seconds --size --pipeline' ;;
    esac
    if [[ $cur == -* ]]; then
        words=$options
    fi
    COMPREPLY=($(compgen -W "$words" -- "$cur"))
}

complete -F _quorctl quorctl
