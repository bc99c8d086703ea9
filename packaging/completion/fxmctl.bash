# bash completion of fxmctl: source <(fxmctl completion bash)
_fxmctl() {
    local line=${COMP_LINE:0:COMP_POINT} words word
    local current=${line##*[[:space:]]} breaks=${COMP_WORDBREAKS//[^:=]/} replaced=''
    read -ra words <<<"$line"
    [ -n "$current" ] || words+=('')
    # Ids have colons and filters have equals signs. Bash ends a word there, and replaces only what is behind.
    [ -z "$breaks" ] || replaced=${current%"${current##*["$breaks"]}"}
    COMPREPLY=()
    while IFS= read -r word; do
        [[ $word != "$current"* ]] || COMPREPLY+=("${word#"$replaced"}")
    done < <("${words[0]}" __complete "${words[@]:1}" 2>/dev/null)
    [[ ${#COMPREPLY[@]} -ne 1 || ${COMPREPLY[0]} != *= ]] || compopt -o nospace 2>/dev/null
}
complete -o default -F _fxmctl fxmctl
