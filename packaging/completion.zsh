#compdef trelsnmpd trelmemberd trelctl
# What their --help lists, so that it is never out of date.
local -a command found
local word help
command=("$words[1]")
# Of the subcommands that are there already.
for word in "${(@)words[2,CURRENT-1]}"; do
  [[ $word == [a-z]* ]] || break
  [[ $service == trelctl ]] && command+=("$word")
done
help=$("${command[@]}" --help 2>/dev/null) || return
if [[ $PREFIX == -* ]]; then
  found=(${(f)"$(grep -oE '^ +(-[a-z],)?--[a-z-]+' <<<"$help" | grep -oE -e '--.*')"})
else
  found=(${=$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\+\) .*/\1/p; s/^Tables: //p' <<<"$help")})
  (( $#found )) || { _files; return; }
fi
compadd -- $found
