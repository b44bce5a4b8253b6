# bash completion for kovactl
_kovactl() {
  local cur=${COMP_WORDS[COMP_CWORD]} words=() w i
  # The words typed so far without the global options, which may stand anywhere.
  for ((i = 1; i < COMP_CWORD; i++)); do
    w=${COMP_WORDS[i]}
    case $w in --json|-v|--verbose|-h|--help|--version) ;; *) words+=("$w") ;; esac
  done
  local family=${words[0]:-} command=${words[1]:-} n=${#words[@]}
  local globals="--json -v --verbose -h --help --version"
  local states="none single multiview changing" policies="default multiview game" codecs="h264 hevc vp9 av1"
  local reply=
  if ((n == 0)); then
    reply="player speaker zones focus best-zone resolution category policy monitor status $globals"
  elif ((n == 1)); then
    case $family in
      player) reply="register unregister play stop done audio-out" ;;
      speaker) reply="register unregister audio-out" ;;
      zones) reply="list focused assign remove preassign removable clear-removable layout" ;;
      focus) reply="get last set is zone" ;;
      best-zone) reply="switch restore" ;;
      resolution) reply="get policy" ;;
      policy) reply="set internal app-zones preassign register-list unregister-list" ;;
      monitor) reply="-n -t --brief --register-app" ;;
    esac
  else
    case "$family $command $((n - 2))" in
      "player done 0") reply="video-start video-stop audio-start audio-stop" ;;
      "speaker register 1" | "speaker unregister 1") reply="main sub" ;;
      "zones list 0") reply="--multiview" ;;
      "zones layout 0") reply=$states ;;
      "resolution policy 0" | "policy set 0" | "policy internal 0" | "policy app-zones 0") reply=$policies ;;
      "resolution policy 1") reply=$codecs ;;
      "policy set "*) reply="--remove-all" ;;
      monitor*) reply="-n -t --brief --register-app" ;;
    esac
  fi
  COMPREPLY=($(compgen -W "$reply" -- "$cur"))
}
complete -F _kovactl kovactl
