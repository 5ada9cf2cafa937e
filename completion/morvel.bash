# SPDX-License-Identifier: GPL-3.0-or-later
# bash completion for morvel                                  -*- shell-script -*-
#
# Self-contained: it uses none of the bash-completion package's helpers, and
# works with or without that package loaded. The words are taken from
# COMP_LINE split at blanks, so '=', ':' and '@' in COMP_WORDBREAKS do not
# split them; what is offered is cut back to the part readline replaces.

_morvel_host_options='--config --log-file --log-level --password-file --show-config --help --version'
_morvel_smmlan_options='--bmc --bmc-file --method --fanout --output --always-prefix --detect-timeout --max-auth-failures --canary --max-failures --retry-file --protocol --redfish-auth --tls-verify --cacert --known-smms --credentials-file --password-command --password-file --help'
_morvel_trust_options='--known-smms --yes --help'

# The hosts of the known-SMMs file (first field of each line), one a line.
_morvel_known_hosts() {
    local file=$1 host rest
    [[ -r $file && -f $file ]] || return 0
    while read -r host rest; do
        [[ -z $host || $host == \#* ]] && continue
        printf '%s\n' "$host"
    done <"$file"
}

# Adds to COMPREPLY the words of $1 (newline-separated) that start with $2.
_morvel_offer() {
    local word
    while IFS= read -r word; do
        [[ -n $word && $word == "$2"* ]] && COMPREPLY+=("$word")
    done <<<"$1"
}

_morvel_files() {
    local IFS=$'\n'
    compopt -o filenames 2>/dev/null
    COMPREPLY+=($(compgen -f -- "$1"))
}

# Completes the value $2 of option $1; $3: the known-SMMs file.
_morvel_value() {
    local option=$1 cur=$2 known=$3
    case $option in
        --config | --log-file | --password-file | --bmc-file | --cacert | --known-smms | --credentials-file | --retry-file)
            _morvel_files "$cur" ;;
        --log-level) _morvel_offer $'0\n1\n2\n3\n4' "$cur" ;;
        --method) _morvel_offer $'static\ndhcp\ndhcp-failover' "$cur" ;;
        --output) _morvel_offer $'text\njson\ntable' "$cur" ;;
        --protocol) _morvel_offer $'auto\nredfish\nipmi' "$cur" ;;
        --redfish-auth) _morvel_offer $'basic\nsession' "$cur" ;;
        --tls-verify) _morvel_offer $'none\nca\npin\ntofu' "$cur" ;;
        --password-command)
            local IFS=$'\n'
            COMPREPLY+=($(compgen -c -- "$cur")) ;;
        --bmc)
            # USER[:PASSWORD]@HOST: keep what was typed up to the last '@'
            # (and up to the last ',' after it), offer the known hosts.
            [[ $cur == *@* ]] || return 0
            local lead=${cur%@*}@ hosts=${cur##*@} host
            if [[ $hosts == *,* ]]; then
                lead+=${hosts%,*},
                hosts=${hosts##*,}
            fi
            while IFS= read -r host; do
                [[ -n $host && $host == "$hosts"* ]] && COMPREPLY+=("$lead$host")
            done < <(_morvel_known_hosts "$known")
            ;;
    esac
}

_morvel_takes_value() {
    case $1 in
        --config | --log-file | --log-level | --password-file | --bmc | --bmc-file | --method | --fanout | \
            --output | --protocol | --redfish-auth | --tls-verify | --cacert | --known-smms | --credentials-file | \
            --password-command | --detect-timeout | --max-auth-failures | --canary | --max-failures | --retry-file)
            return 0 ;;
    esac
    return 1
}

_morvel() {
    COMPREPLY=()
    local line=${COMP_LINE:0:COMP_POINT}
    local -a words
    read -ra words <<<"$line"
    [[ $line =~ [[:space:]]$ || ${#words[@]} -eq 0 ]] && words+=("")
    local cur=${words[${#words[@]} - 1]}
    local count=$((${#words[@]} - 1))

    # Walk the words before the current one: host options, the command, its
    # subcommand, its options; remember an earlier --known-smms.
    local command='' subcommand='' operand='' known='' state=host i word pending=''
    for ((i = 1; i < count; i++)); do
        word=${words[i]}
        if [[ -n $pending ]]; then
            [[ $pending == --known-smms ]] && known=$word
            pending=''
            continue
        fi
        case $word in
            --known-smms=*) known=${word#*=} ;;
            --*=*) ;;
            -*) _morvel_takes_value "$word" && pending=$word ;;
            *)
                if [[ $state == host ]]; then
                    command=$word state=sub
                elif [[ $state == sub ]]; then
                    subcommand=$word state=options
                elif [[ -z $operand ]]; then
                    operand=$word
                fi
                ;;
        esac
    done
    if [[ -z $known ]]; then
        if [[ -n $XDG_STATE_HOME ]]; then
            known=$XDG_STATE_HOME/morvel/known_smms
        else
            known=$HOME/.local/state/morvel/known_smms
        fi
    fi

    if [[ -n $pending ]]; then
        _morvel_value "$pending" "$cur" "$known"
    elif [[ $cur == --*=* ]]; then
        local option=${cur%%=*}
        _morvel_value "$option" "${cur#*=}" "$known"
        for i in "${!COMPREPLY[@]}"; do
            COMPREPLY[i]=$option=${COMPREPLY[i]}
        done
    elif [[ $state == host ]]; then
        [[ $cur != -* ]] && _morvel_offer $'smmlan\ntrust' "$cur"
        [[ -z $cur || $cur == -* ]] && _morvel_offer "${_morvel_host_options// /$'\n'}" "$cur"
    else
        local options=''
        case $command in
            smmlan) options=$_morvel_smmlan_options ;;
            trust) options=$_morvel_trust_options ;;
        esac
        if [[ $cur == -* ]]; then
            _morvel_offer "${options// /$'\n'}" "$cur"
        elif [[ $state == sub ]]; then
            case $command in
                smmlan) _morvel_offer $'enable\ndisable\nenableipmi\nquery' "$cur" ;;
                trust) _morvel_offer $'show\nadd\nremove' "$cur" ;;
            esac
        elif [[ $command == trust && -z $operand ]]; then
            _morvel_offer "$(_morvel_known_hosts "$known")" "$cur"
        elif [[ -z $cur ]]; then
            _morvel_offer "${options// /$'\n'}" "$cur"
        fi
    fi

    # Readline replaces only the text after the last character of
    # COMP_WORDBREAKS in the word ('=', ':' and '@' by default), except that
    # bash keeps a '@' or '$' there in the replaced text: cut each offer back
    # to that part.
    local cut=0 j
    for ((j = ${#cur} - 1; j >= 0; j--)); do
        if [[ ${COMP_WORDBREAKS-} == *"${cur:j:1}"* ]]; then
            cut=$((j + 1))
            [[ ${cur:j:1} == [@\$] ]] && cut=$j
            break
        fi
    done
    if ((cut > 0)); then
        for i in "${!COMPREPLY[@]}"; do
            COMPREPLY[i]=${COMPREPLY[i]:cut}
        done
    fi
    return 0
}

complete -F _morvel morvel
