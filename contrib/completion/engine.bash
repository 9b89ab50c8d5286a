# shellcheck shell=bash disable=SC2154  # the functions below share variables of their caller
# Joins what readline took apart at ":" and "=" into the words that the program
# would get: words, and cword, the one under the cursor.
__fwpush_split() {
  local line=${COMP_LINE-"${COMP_WORDS[*]}"} word
  local -i i last=-1
  words=()
  for ((i = 0; i <= COMP_CWORD; ++i)); do
    word=${COMP_WORDS[i]}
    if [[ $last -lt 0 || $line == [[:space:]]* || $word != [:=]* && ${words[last]} != *[:=] ]]; then
      words[++last]=$word
    else
      words[last]+=$word
    fi
    line=${line#"${line%%[![:space:]]*}"}
    line=${line#"$word"}
  done
  cword=$last
}

# Completes the word under the cursor, from these variables of the caller:
# words and cword; first, where the words begin that count; switches, an array of
# them; takes, what the value of each switch is that has one; operands, an array of
# what each operand is, the last one as often as it comes; equals, the switches
# that take "=", a pattern.
__fwpush_complete() {
  local current=${words[cword]} word kind='' before='' mark
  local -i i place=0
  COMPREPLY=()
  for ((i = first; i < cword; ++i)); do
    word=${words[i]}
    if [[ -n ${takes[$word]-} ]]; then
      if ((++i == cword)); then kind=${takes[$word]}; fi
    elif [[ $word != -* ]]; then
      ((++place))
    fi
  done
  if [[ -z $kind ]]; then
    # shellcheck disable=SC2053  # a pattern
    if [[ $current == *=* && ${current%%=*} == $equals ]]; then
      kind=${takes[${current%%=*}]-}
      before=${current%%=*}=
      current=${current#*=}
    elif [[ $current == -* ]]; then
      mapfile -t COMPREPLY < <(compgen -W "${switches[*]}" -- "$current")
      return
    elif ((${#operands[@]} > 0)); then
      if ((place >= ${#operands[@]})); then ((place = ${#operands[@]} - 1)); fi
      kind=${operands[place]}
    fi
  fi

  case $kind in
    'words '*) mapfile -t COMPREPLY < <(compgen -W "${kind#words }" -- "$current") ;;
    'server '*)
      case $current in
        *:*:*) ;;
        *:*) mapfile -t COMPREPLY < <(
          compgen -A hostname -P "${current%%:*}:" -S : -- "${current#*:}") ;;
        *) mapfile -t COMPREPLY < <(compgen -S : -W "${kind#server }" -- "$current") ;;
      esac
      compopt -o nospace
      ;;
    'files'*)
      if [[ $current == [\~\"\']* || $current == *\\* ]]; then
        compopt -o default # readline knows how to quote
        return
      fi
      compopt -o filenames
      read -r -a endings <<<"${kind#files}"
      if ((${#endings[@]} == 0)); then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
      else
        mapfile -t COMPREPLY < <(
          compgen -d -- "$current"
          for ending in "${endings[@]}"; do
            compgen -f -X "!*.$ending" -- "$current" | while IFS= read -r word; do
              [[ -d $word ]] || printf '%s\n' "$word"
            done
          done
        )
      fi
      ;;
    folder)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -d -- "$current")
      ;;
    program)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -c -- "$current" | sort -u)
      ;;
  esac

  # Readline replaces only what follows the last character that breaks words.
  COMPREPLY=("${COMPREPLY[@]/#/"$before"}")
  word=${words[cword]}
  before=
  for mark in : =; do
    if [[ $COMP_WORDBREAKS == *"$mark"* && $word == *"$mark"* ]]; then
      word=${word%"$mark"*}$mark
      if [[ ${#word} -gt ${#before} ]]; then before=$word; fi
      word=${words[cword]}
    fi
  done
  COMPREPLY=("${COMPREPLY[@]#"$before"}")
}
