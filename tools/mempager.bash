# Completion for mempager(1).
_mempager()
{
    local word=$2 before=$3 words='ls clean doctor --help --version'
    if [[ $before == --temp ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -d -- "$word")
        return
    fi
    case ${COMP_WORDS[1]} in
        ls | doctor) ((COMP_CWORD > 1)) && words='--json --temp --help' ;;
        clean) ((COMP_CWORD > 1)) && words='--dry-run --json --temp --help' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -F _mempager mempager
