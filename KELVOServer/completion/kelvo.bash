# bash completion for kelvo: commands, their options, and voice ids asked from
# the running service (kelvo voices --json) where a voice id goes.

_kelvo_voice_ids() {
  # A service that does not answer within two seconds simply offers nothing.
  timeout 2 kelvo voices --json 2>/dev/null | sed -n 's/^ *"id": *"\([^"]*\)".*/\1/p'
}

_kelvo() {
  local cur prev words cword
  if declare -F _init_completion >/dev/null; then
    _init_completion || return
  else
    cur=${COMP_WORDS[COMP_CWORD]}
    prev=${COMP_WORDS[COMP_CWORD - 1]}
    words=("${COMP_WORDS[@]}")
    cword=$COMP_CWORD
  fi

  local common="--url --json --help"
  local commands="serve say play voices bind unbind bindings status log cache prebake pack models update hub"

  # The command, its subcommand and the arguments after it: the words that are
  # neither options nor the values of options.
  local cmd="" sub="" i w
  local -a positional=()
  for ((i = 1; i < cword; i++)); do
    w=${words[i]}
    case ${words[i - 1]} in
      --url | --voice | --airline | --language | --gender | --speed | --style | --rate | -o | --output | --text | \
        --display | --title | --port | --bind | -n | --lines) continue ;;
    esac
    [[ $w == -* ]] && continue
    if [[ -z $cmd ]]; then cmd=$w
    elif [[ -z $sub ]]; then sub=$w; positional+=("$w")
    else positional+=("$w")
    fi
  done

  case $prev in
    --voice)
      mapfile -t COMPREPLY < <(compgen -W "$(_kelvo_voice_ids)" -- "$cur")
      return ;;
    --gender)
      mapfile -t COMPREPLY < <(compgen -W "female male default" -- "$cur")
      return ;;
    -o | --output)
      mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      return ;;
    --url | --language | --airline | --speed | --style | --rate | --text | --display | --title | --port | --bind | -n | --lines)
      return ;;
  esac

  local opts="" words_here=""
  case $cmd in
    "") words_here=$commands; opts="$common --version" ;;
    serve) opts="--port --bind --hub" ;;
    say) opts="--voice --airline --language --gender --speed --style --rate -o --output --play" ;;
    play) mapfile -t COMPREPLY < <(compgen -f -- "$cur"); [[ $cur == -* ]] || return ;;
    voices)
      case $sub in
        "") words_here="clone rm" ;;
        clone) opts="--text --display --language --gender --style"
          [[ $cur == -* ]] || { mapfile -t COMPREPLY < <(compgen -f -- "$cur"); return; } ;;
        rm) [[ ${#positional[@]} -le 1 ]] && words_here=$(_kelvo_voice_ids) ;;
      esac ;;
    bind | unbind)
      opts="--default"
      # bind's last argument is the voice: the 4th, or the 3rd with --default.
      local voiceAt=4
      [[ " ${words[*]} " == *" --default "* ]] && voiceAt=3
      [[ $cmd == bind && ${#positional[@]} -eq $((voiceAt - 1)) ]] && words_here=$(_kelvo_voice_ids) ;;
    log) opts="-n --lines -f --follow" ;;
    cache) [[ -z $sub ]] && words_here="clear" || opts="-y --yes" ;;
    prebake) opts="--language --gender --airline --detach"
      [[ $cur == -* ]] || { mapfile -t COMPREPLY < <(compgen -f -- "$cur"); return; } ;;
    pack)
      case $sub in
        "") words_here="export import" ;;
        export) opts="--airline --voice -o --output" ;;
        import) mapfile -t COMPREPLY < <(compgen -f -X '!*.cln' -- "$cur"); return ;;
      esac ;;
    models)
      case $sub in
        "") words_here="download rm" ;;
        download) opts="--mirror --no-mirror"; [[ ${#positional[@]} -le 1 ]] && words_here="q6_k q8_0 f16" ;;
        rm) [[ ${#positional[@]} -le 1 ]] && words_here="q6_k q8_0 f16" ;;
      esac ;;
    hub)
      case $sub in
        "") words_here="list get share unshare" ;;
        share) opts="--airline --voice --title" ;;
      esac ;;
  esac

  if [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$opts $common" -- "$cur")
  else
    mapfile -t COMPREPLY < <(compgen -W "$words_here" -- "$cur")
  fi
}

complete -F _kelvo kelvo
