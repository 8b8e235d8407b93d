# Completes fwlab and simphone by their own help: commands, a command's options, the values that an
# option names, the keys of a description; else file names.
_ffu_tools() { # PROGRAM WORD PREVIOUS
    local offered="" help word phone=""
    COMPREPLY=()
    if [ "$COMP_CWORD" -eq 1 ]; then
        offered=$("$1" --help 2>/dev/null | sed -nE '/^Commands:/,/^$/s/^  ([a-z-]+).*/\1/p')
    else
        help=$("$1" "${COMP_WORDS[1]}" --help 2>/dev/null)
        if [[ $2 == -* ]]; then
            offered=$(sed -nE 's/^ +(-.,)?(--[a-z-]+).*/\2/p' <<<"$help")
        elif [ "$3" = --set ]; then # KEY=, of the description that the line names
            for word in "${COMP_WORDS[@]}"; do
                [[ $word != *.toml ]] || phone=$word
            done
            offered=$(awk '/^\[[a-z_]+\]/ { table = substr($1, 2, length($1) - 2) "." }
                /^[a-z_]+ *=/ { sub(/ *=.*/, "="); print table $0 }' "$phone" 2>/dev/null)
            compopt -o nospace 2>/dev/null
        elif [[ $3 == -* ]]; then # --kind a|b|c
            offered=$(sed -nE "s/^ +(-.,)?$3 ([a-z-]+(\|[a-z-]+)+).*/\2/p" <<<"$help" | tr '|' ' ')
        fi
    fi
    mapfile -t COMPREPLY < <(compgen -W "$offered" -- "$2")
}
complete -o default -F _ffu_tools fwlab simphone
