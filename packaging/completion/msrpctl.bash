# Completion for bash: the programs know their words, and msrpctl asks the daemon for ports, streams and fields.
_msrpd_words() {
    # Readline also ends words at ':' and '=', which addresses and options have in them.
    local -a words=()
    local rest=${COMP_LINE:0:COMP_POINT} before word i
    for ((i = 0; i <= COMP_CWORD; ++i)); do
        before=${rest%%[![:space:]]*}
        rest=${rest#"$before"}
        word=${COMP_WORDS[i]}
        # The last one as far as the cursor.
        ((i < COMP_CWORD)) || word=$rest
        rest=${rest#"$word"}
        if [[ -n $before || $i -eq 0 ]]; then words+=("$word"); else words[-1]+=$word; fi
    done
    # What Readline holds for its word; a divider alone is none.
    [[ $word != [:=] ]] || word=
    local begun=${words[-1]%"$word"} reply
    COMPREPLY=()
    while IFS= read -r reply; do
        reply=${reply#"$begun"}
        [[ $reply != *[!A-Za-z0-9_./:=@+-]* ]] || printf -v reply %q "$reply"
        COMPREPLY+=("$reply")
    done < <("$1" --complete "${words[@]:1}" 2>/dev/null)
}
complete -o default -F _msrpd_words msrpctl msrpd msrp-station msrpsim
