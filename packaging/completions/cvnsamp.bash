# bash completion for cvnsamp
_cvnsamp() {
    local cur=${COMP_WORDS[COMP_CWORD]}
    COMPREPLY=()
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "-h --help -V --version" -- "$cur")
    elif ((COMP_CWORD > 1)); then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -X '!*.cvn' -- "$cur"; compgen -d -- "$cur")
    fi
}
complete -F _cvnsamp cvnsamp
