# bash completion for trelsnmpd, trelmemberd and trelctl: what their --help lists, so that it is never out of date.
_trel() {
  local word=${COMP_WORDS[COMP_CWORD]} words=("$1") help i
  # Of the subcommands that are there already.
  for ((i = 1; i < COMP_CWORD; i++)); do
    [[ ${COMP_WORDS[i]} == [a-z]* ]] || break
    [[ $1 == *trelctl ]] && words+=("${COMP_WORDS[i]}")
  done
  help=$("${words[@]}" --help 2>/dev/null) || return
  case $word in
    -*) mapfile -t COMPREPLY < <(compgen -W "$(grep -oE '^ +(-[a-z],)?--[a-z-]+' <<<"$help" | grep -oE -e '--.*')" -- "$word") ;;
    *)
      mapfile -t COMPREPLY < <(compgen -W "$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\+\) .*/\1/p; s/^Tables: //p' <<<"$help")" -- "$word")
      [ ${#COMPREPLY[@]} != 0 ] || compopt -o default 2>/dev/null
      ;;
  esac
}
complete -F _trel trelsnmpd trelmemberd trelctl
