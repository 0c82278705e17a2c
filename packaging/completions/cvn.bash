# bash completion for cvn
_cvn() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]} options files=
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "create info cat verify split ls put rm meta count query get sample
            -h --help --version" -- "$cur")
        return
    fi
    case $prev in
        --format) mapfile -t COMPREPLY < <(compgen -W "csv jsonl table" -- "$cur"); return ;;
        --delimiter) mapfile -t COMPREPLY < <(compgen -W "tab" -- "$cur"); return ;;
        --schema | --null | --rows | --sample | --columns | --where | --limit | --jobs | --timeout) return ;;
        -o | --output | --cacert) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$cur"); return ;;
    esac
    options="-h --help"
    case $command in
        create) options+=" --schema --no-header --delimiter --null --rows --sample"; files=all ;;
        info) options+=" --json --rowgroups"; files=cvn ;;
        cat) options+=" --columns --where --limit --format"; files=cvn ;;
        verify | split) files=cvn ;;
        put) options+=" --force --timeout --cacert"; files=cvn ;;
        ls) options+=" --format --timeout --cacert" ;;
        rm) options+=" --yes --timeout --cacert" ;;
        meta) options+=" --timeout --cacert" ;;
        count) options+=" --where --jobs --no-nan --stats --timeout --cacert" ;;
        query) options+=" --columns --where --jobs --no-nan --limit --format --stats --output --timeout --cacert" ;;
        get) options+=" --columns --where --jobs --no-nan --limit --stats --timeout --cacert"; files=cvn ;;
        sample) options+=" --format --output --timeout --cacert" ;;
    esac
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
    elif [[ $files == all ]]; then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    elif [[ $files == cvn ]]; then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -X '!*.cvn' -- "$cur"; compgen -d -- "$cur")
    fi
}
complete -F _cvn cvn
