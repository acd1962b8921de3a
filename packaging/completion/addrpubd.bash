# shellcheck shell=bash
#  Completion for addrpubd and addrpubd-check in bash(1). It uses no function of another package.
#
#  Each key is a word; its value has the words that are offered after it. FILE means the names of ini files and folders.
#  Every option in the usage texts of the two programs must be in this table.
declare -gA _addrpubd_next=(
    [addrpubd]="-start -stop -status -run -ver"
    [addrpubd-check]="--help --status --connect --remove FILE"
    [--status]="--json --prometheus"
    [--connect]="FILE"
    [--remove]="--yes --with-tag --port FILE"
    [--yes]="--with-tag --port FILE"
    [--with-tag]="--yes --port FILE"
)

_addrpubd() {
    local current=$2 words="" name
    COMPREPLY=()
    #  The command may be a path. Later words are completed only after an option that begins with --.
    if ((COMP_CWORD == 1)); then
        words=${_addrpubd_next[${1##*/}]}
    elif [[ $3 == --* ]]; then
        words=${_addrpubd_next[$3]:-}
    fi
    if [[ " $words " == *" FILE "* && $current != -* ]]; then
        compopt -o filenames
        while IFS= read -r name; do
            COMPREPLY+=("$name")
        done < <(compgen -f -X '!*.ini' -- "$current"; compgen -d -- "$current")
    fi
    while IFS= read -r name; do
        COMPREPLY+=("$name")
    done < <(compgen -W "${words/FILE/}" -- "$current")
}

complete -F _addrpubd addrpubd addrpubd-check
