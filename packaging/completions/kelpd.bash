# bash completion for kelpd
_kelpd() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()
    if [[ $prev == -D ]]; then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -d -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -W "-D -h -n -v" -- "$cur")
    fi
}
complete -F _kelpd kelpd
