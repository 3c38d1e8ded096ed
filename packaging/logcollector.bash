# bash completion for logcollector
_logcollector()
{
    local cur=${COMP_WORDS[COMP_CWORD]}
    [[ ${COMP_WORDS[COMP_CWORD - 1]} == = || $cur == = ]] && return   # a value: nothing to offer
    mapfile -t COMPREPLY < <(compgen -W '--clean --hourstokeep= --subfolder= --xml= --xmlb64=' -- "$cur")
    [[ ${COMPREPLY[0]} == *= ]] && compopt -o nospace
}
complete -F _logcollector logcollector
