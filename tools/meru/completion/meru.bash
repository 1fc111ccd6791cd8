# Completion of the meru command for bash. Its lists are those of `meru SUBCOMMAND --help`; a test compares them.

# What stands behind an option: names, a file, or another word. An option that is not here has nothing behind it.
_meru_values() {  # OPTION SUBCOMMAND
  case $2$1 in screen--audio) echo other; return ;; esac
  case $1 in
    --pix-fmt) echo names bgra rgba argb abgr bgr24 rgb24 yuv420p nv12 yuv422p yuv444p ;;
    --sample-fmt) echo names u8 s16 s32 flt dbl ;;
    --preset) echo names ultrafast superfast veryfast faster fast medium slow slower veryslow placebo none ;;
    --profile) echo names baseline main high high10 high422 high444 none ;;
    --tune) echo names film animation grain stillimage psnr ssim fastdecode zerolatency none ;;
    --rate-control) echo names abr cbr cqp vbr ;;
    --color-space) echo names none bt709 bt601 bt470bg bt2020 ;;
    --color-range) echo names limited full none ;;
    --video-raw | --y4m | --audio-raw | --video | --audio | -o | --output | --index | --also | --log) echo files ;;
    --size | --fps | --rate | --channels | --metadata | --timeout | --v-bitrate | --a-bitrate | --crf | --qp | --gop | \
      --out-size | --seconds | --progress | --display | --region) echo other ;;
  esac
}

_meru_options() {  # SUBCOMMAND
  case $1 in
    record)
      echo -h --help --test --video-raw --size --fps --pix-fmt --y4m --audio-raw --rate --channels --sample-fmt --no-video \
        --no-audio -o --output --index --also --metadata --timeout --preset --profile --tune --rate-control --v-bitrate \
        --a-bitrate --crf --qp --gop --out-size --color-space --color-range --hardware --seconds --realtime --progress \
        --log --verbose
      ;;
    screen)
      echo -h --help --display --region --fps --no-pointer --audio -o --output --index --also --metadata --timeout \
        --no-index --preset --profile --tune --rate-control --v-bitrate --a-bitrate --crf --qp --gop --out-size \
        --color-space --color-range --hardware --seconds --progress --log --verbose --json
      ;;
    remux)
      echo -h --help --video --audio --fps --no-video --no-audio -o --output --index --also --metadata --realtime \
        --progress --log --verbose
      ;;
    repair) echo -h --help --json --force --log --verbose ;;
    recover) echo -h --help --log --verbose ;;
    index) echo -h --help --json ;;
    *) echo -h --help --version ;;
  esac
}

_meru() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} subcommand='' values i
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      screen | record | remux | repair | recover | index)
        subcommand=${COMP_WORDS[i]}
        break
        ;;
    esac
  done

  # "--option=value" comes as three words.
  if [ "$word" = = ]; then
    word=''
  elif [ "$before" = = ]; then
    before=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  values=$(_meru_values "$before" "$subcommand")
  case $values in
    names*)
      mapfile -t COMPREPLY < <(compgen -W "${values#names}" -- "$word")
      return
      ;;
    other) return ;;
  esac
  if [ -z "$values" ] && [[ $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(_meru_options "$subcommand")" -- "$word")
  elif [ -z "$subcommand" ]; then
    mapfile -t COMPREPLY < <(compgen -W 'screen record remux repair recover index' -- "$word")
  elif [ -z "$values" ] && [ "$subcommand" = recover ]; then
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -d -- "$word")
  elif [ -n "$values" ] || [[ $subcommand != record && $subcommand != screen ]]; then
    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  fi
}

complete -F _meru meru
