# Bash completion for vesktap: commands, then the options of the command as its --help
# lists them (so completion never disagrees with the program), and table names after
# --table and --tables as the program names them when it refuses one.
_vesktap() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
  local exe=${COMP_WORDS[0]}
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W "demo agent hw show metrics --help --version" -- "$cur")
    return
  fi
  case $prev in
    --table | --tables)
      local tables
      tables=$("$exe" agent --tables '?' 2>&1 | sed -n 's/.*(tables: \(.*\)).*/\1/p' | tr -d ',')
      mapfile -t COMPREPLY < <(compgen -W "$tables" -- "$cur")
      return
      ;;
    --workload | --report-json)
      mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      return
      ;;
  esac
  local options
  options=$("$exe" "${COMP_WORDS[1]}" --help 2>/dev/null | grep -o -- '--[a-z-]*' | sort -u)
  mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
}
complete -F _vesktap vesktap
