# bash completion for quorvex: commands, their options, index directories
# and input files. Installed as share/bash-completion/completions/quorvex.
_quorvex() {
    local cur prev command
    cur=${COMP_WORDS[COMP_CWORD]}
    prev=${COMP_WORDS[COMP_CWORD-1]}
    command=${COMP_WORDS[1]}
    if [ "$COMP_CWORD" -eq 1 ]; then
        COMPREPLY=($(compgen -W "build search info verify --help --version" -- "$cur"))
        return
    fi
    case "$prev" in
        --format) COMPREPLY=($(compgen -W "tsv jsonl dictd" -- "$cur")); return ;;
        --duplicates) COMPREPLY=($(compgen -W "merge last error" -- "$cur")); return ;;
        --limit|--typos|--name|--description|-k|--keyword) return ;;
    esac
    local options
    case "$command" in
        build) options="--format --skip-invalid --duplicates --force -q --quiet --exact --name --description --help" ;;
        search) options="--limit --json --full --stats --pattern --typos -q --no-suggest -k --keyword --help" ;;
        info) options="--json --help" ;;
        verify) options="--deep --json --help" ;;
    esac
    if [[ "$cur" == -* ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
    elif [ "$command" = build ]; then
        COMPREPLY=($(compgen -f -- "$cur"))
    else
        COMPREPLY=($(compgen -d -- "$cur"))
    fi
}
complete -o filenames -F _quorvex quorvex
