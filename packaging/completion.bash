# Completion for tqp and its tools. Options and their words are read from each program's --help.

_tqp_help() {
  "$1" --help 2>/dev/null
}

# The words that an option of the help text takes: "form of ... (classic, exit or both; default both)".
_tqp_words() {
  _tqp_help "$1" | tr '\n' ' ' | sed -n "s/.* --$2 [^(]*(\([^;)]*\) or \([a-z]*\);[^)]*).*/\1, \2/p" | tr ',' '\n' |
    sed -n 's/^ *\([a-z]\{1,\}\) *$/\1/p'
}

_tqp_complete() {
  local program=$1 cur=$2 prev=$3 dir word i
  COMPREPLY=()
  case $prev in
    --dir | -W)
      mapfile -t COMPREPLY < <(compgen -d -- "$cur")
      return
      ;;
    --file | --samples)
      mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      return
      ;;
    --testrun | -t)
      dir=$WL_WDIR
      for ((i = 1; i < COMP_CWORD - 1; ++i)); do
        case ${COMP_WORDS[i]} in --dir | -W) dir=${COMP_WORDS[i + 1]} ;; esac
      done
      for word in "$dir"/logs/TR*; do
        [ -d "$word" ] && COMPREPLY+=("${word##*/TR}")
      done
      mapfile -t COMPREPLY < <(compgen -W "${COMPREPLY[*]}" -- "$cur")
      return
      ;;
    --*)
      word=$(_tqp_words "$program" "${prev#--}")
      if [ -n "$word" ]; then
        mapfile -t COMPREPLY < <(compgen -W "$word" -- "$cur")
        return
      fi
      ;;
  esac
  word=$(_tqp_help "$program" | sed -n 's/^ *\(-[A-Za-z], \)\{0,1\}\(--[a-z_-]*\).*/\2/p')
  mapfile -t COMPREPLY < <(compgen -W "$word" -- "$cur")
}

complete -F _tqp_complete tqp tqcheck tq_reset tqtop tqshow tq_sample tqu_db_upload
