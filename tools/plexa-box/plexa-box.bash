# bash completion of plexa-box. Options are taken from the program's own help.

_plexa_box() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  case $prev in
    --root)
      mapfile -t COMPREPLY < <(compgen -d -- "$cur")
      return
      ;;
    --address | --port | --clients | --patience)
      return
      ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$(plexa-box --help 2> /dev/null |
    grep -oE -- '^ +(-., )?--[a-z-]+' | grep -oE -- '--[a-z-]+')" -- "$cur")
}
complete -o filenames -F _plexa_box plexa-box
