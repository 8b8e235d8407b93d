# Completes fwlab and simphone by their own help: commands, a command's options, else file names.
_ffu_tools() { # PROGRAM WORD
    local offered
    COMPREPLY=()
    if [ "$COMP_CWORD" -eq 1 ]; then
        offered=$("$1" --help 2>/dev/null | sed -nE '/^Subcommands:/,/^$/s/^  ([a-z-]+).*/\1/p')
    elif [[ $2 == -* ]]; then
        offered=$("$1" "${COMP_WORDS[1]}" --help 2>/dev/null | sed -nE 's/^ +(-.,)?(--[a-z-]+).*/\2/p')
    else
        return
    fi
    mapfile -t COMPREPLY < <(compgen -W "$offered" -- "$2")
}
complete -o default -F _ffu_tools fwlab simphone
