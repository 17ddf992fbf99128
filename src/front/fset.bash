# Completion of fset for bash: commands, options, paths, filesets, and snapshots with their dates.

# Reads lines of a word, a tab and a date. The words become the reply; the dates are shown as long as there is a choice.
_fset_reply() {
  local cur=$1 word date words=() lines=()
  while IFS=$'\t' read -r word date; do
    printf -v word %q "$word"
    [[ $word == "$cur"* ]] || continue
    words+=("$word")
    lines+=("$word${date:+  ($date)}")
  done
  # 37 and 42: the words are put in one after the other, or all at once.
  if ((${#words[@]} == 1 || COMP_TYPE == 37 || COMP_TYPE == 42)); then
    COMPREPLY+=("${words[@]}")
  else
    COMPREPLY+=("${lines[@]}")
  fi
}

_fset() {
  local cur=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command= fileset= at word
  local words=()
  COMPREPLY=()
  for ((at = 1; at < COMP_CWORD; at++)); do
    word=${COMP_WORDS[at]}
    if [[ $word == --fileset ]]; then
      fileset=${COMP_WORDS[++at]}
    elif [[ $word != -* ]]; then
      if [[ ! $command ]]; then command=$word; else words+=("$word"); fi
    fi
  done
  if [[ $previous == --fileset ]]; then
    _fset_reply "$cur" < <(fset complete filesets ${words[0]:+"${words[0]}"} 2>/dev/null)
    return
  fi
  local options="--fileset --json --help"
  case $command in
    '') options="--help --version" ;;
    diff) options+=" --stat --full" ;;
    restore | undo) options+=" --yes --no-backup" ;;
  esac
  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "$options" -- "$cur"))
  elif [[ ! $command ]]; then
    COMPREPLY=($(compgen -W "list diff restore undo progress" -- "$cur"))
  elif [[ $command == diff || $command == restore ]] && ((${#words[@]} < 2)); then
    local place=(${fileset:+--fileset "$fileset"} ${words[0]:+"${words[0]/#\~/$HOME}"})
    _fset_reply "$cur" < <(fset complete snapshots "${place[@]}" 2>/dev/null
      ((${#words[@]} > 0)) || printf '%s\t\n' latest yesterday)
  fi
  if [[ $cur != -* && $command ]] && ((${#words[@]} == 0)); then
    compopt -o filenames 2>/dev/null
    local paths
    mapfile -t paths < <(compgen -d -- "$cur")
    COMPREPLY+=("${paths[@]}")
  fi
}

complete -F _fset fset
