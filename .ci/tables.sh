# The tables as a manager sees them. Sourced by bash after setup.sh, from the project's directory; needs the release
# build's MIB modules.

mibs=build/release/mibs

# The tools' own settings are left aside: what is printed shall not depend on them.
# manager [COMMAND...] TOOL ARGUMENT...: the arguments begin with the first that is an option.
manager() {
  local tool=()
  while [[ $1 != -* ]]; do
    tool+=("$1")
    shift
  done
  SNMPCONFPATH=$scratch SNMP_PERSISTENT_DIR=$scratch "${tool[@]}" -M "$mibs" -m ALL -OU -v2c -c public "$@"
}

# Every table of the modules as "<module>::<table>", the reachability table last.
tables() {
  local module
  for module in "$mibs"/VELDA-TREL*-MIB; do
    sed -n "s/^\(veldaTrel[A-Za-z]*Table\) OBJECT-TYPE\$/${module##*/}::\1/p" "$module"
  done | sort -t: -k 3 | awk '/Reachability/ { last = $0; next } { print } END { print last }'
}

# printTables ADDRESS [COMMAND...]: as the agent there serves them; the manager's tools are run by COMMAND, if given.
printTables() {
  local address=$1 table
  shift
  for table in $(tables); do
    manager "$@" snmptable -Ci -Cb -Cw 100 "$address" "$table" >"$scratch/table" 2>&1 ||
      { cat "$scratch/table" >&2; fail "snmptable $table failed"; }
    if grep -q 'No entries$' "$scratch/table"; then
      printf '\nSNMP table: %s\n\n(empty: no rows at present)\n' "$table"
    else
      printf '\n'
      cat "$scratch/table"
    fi
  done
}
