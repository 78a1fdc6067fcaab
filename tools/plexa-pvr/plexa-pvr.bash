# bash completion of plexa-pvr. Commands and options are taken from the program's own help.

_plexa_pvr() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} word command='' i
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    if [[ $word != -* && ${COMP_WORDS[i - 1]} != --log ]]; then
      command=$word
      break
    fi
  done
  case $prev in
    --log)
      mapfile -t COMPREPLY < <(compgen -W 'off error debug' -- "$cur")
      return
      ;;
    --speed)
      mapfile -t COMPREPLY < <(compgen -W '1 max' -- "$cur")
      return
      ;;
    --dir)
      mapfile -t COMPREPLY < <(compgen -d -- "$cur")
      return
      ;;
    --time | --offset | --interval | --from | --to | --program | --every | --max-time | --readers | --reserve)
      return
      ;;
  esac
  if [[ $cur == -* ]]; then
    # shellcheck disable=SC2046
    mapfile -t COMPREPLY < <(compgen -W "$(plexa-pvr ${command:+"$command"} --help 2> /dev/null |
      grep -oE -- '^ +(-h, )?--[a-z-]+' | grep -oE -- '--[a-z-]+')" -- "$cur")
  elif [[ -z $command ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(plexa-pvr --help 2> /dev/null |
      sed -n '/^Commands:/,/^$/s/^  \([a-z]*\) .*/\1/p')" -- "$cur")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
  fi
}
complete -o filenames -F _plexa_pvr plexa-pvr
