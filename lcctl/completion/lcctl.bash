# bash completion for lcctl

# What may follow an option and its "=".
_lcctl_value()
{
    case $1 in
    --app | --as) lcctl logs --list 2>/dev/null | awk 'NR > 1 { print $7 }' | sort -u ;;
    --level | -p) echo error warning milestone note ;;
    --since | --until | -S | -U) echo today yesterday -1h -15min ;;
    --entity) echo application driver utility apputility dll ;;
    --older) echo 1d 7d 14d 4w ;;
    --max-size) echo 500M 1G 5G ;;
    esac
}

_lcctl_options()
{
    echo --help --version
    case $1 in
    '') ;;
    logs) echo --app= --last-run --since= --until= --level= --source= --not-source= --thread= --grep= --follow --lines= \
               --list --paths --json --all-users --dir= ;;
    ps) echo --all --json ;;
    stop) echo --all --timeout= ;;
    clean) echo --older= --max-size= --max-runs= --app= --all-users --dir= --dry-run --json ;;
    doctor) echo --as= --entity= --json ;;
    report) echo --output= --app= --dir= --dry-run --json ;;
    run) echo --name= --quiet -- ;;
    esac
}

# The words that stand for themselves: process ids.
_lcctl_words()
{
    case $1 in
    stop) lcctl ps 2>/dev/null | awk '$1 ~ /^[0-9]+$/ { print $1 }' ;;
    level) lcctl ps --all 2>/dev/null | awk '$1 ~ /^[0-9]+$/ { print $1 }' ;;
    esac
}

_lcctl()
{
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]} option=
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "logs ps flush stop level clean doctor report run $(_lcctl_options '')" -- "$cur")
        return
    fi

    # "--app=NAME" is three words here, "--app NAME" two.
    if [[ $cur == = ]]; then
        option=$prev cur=
    elif [[ $prev == = ]]; then
        option=${COMP_WORDS[COMP_CWORD - 2]}
    elif [[ $prev == -* ]]; then
        option=$prev
    fi
    case $option in
    --dir)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -d -- "$cur")
        return
        ;;
    --output | -o)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
        ;;
    --)
        mapfile -t COMPREPLY < <(compgen -c -- "$cur")
        return
        ;;
    esac
    local values
    values=$(_lcctl_value "$option")
    if [[ $values ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$values" -- "$cur")
        return
    fi
    [[ $prev == = || ${COMP_WORDS[COMP_CWORD]} == = ]] && return   # a value of another kind

    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_lcctl_options "$command")" -- "$cur")
        [[ ${COMPREPLY[0]} == *= ]] && compopt -o nospace
    elif [[ $command == logs || $command == run ]]; then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -W "$(_lcctl_words "$command")" -- "$cur")
    fi
    return 0
}
complete -F _lcctl lcctl
