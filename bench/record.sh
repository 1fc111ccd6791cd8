#!/usr/bin/env bash
# Recording raw 1080p BGRA images: `meru record` beside the ffmpeg command, turn by turn, with the same settings.
#
# usage: bench/record.sh [MERU]
#   MERU           the command to measure, build/release/tools/meru/meru when not given
# environment:
#   PAIRS=5        runs of each command per line of the result
#   IMAGES=300     images in the source
#   PRESETS="ultrafast veryfast"
#   BENCH_DIR      folder for sources and movies, on a fast disk; a new one, removed afterwards, when not given
#
# The figures are medians: wall clock and processor time in seconds, peak resident memory in MiB. A ratio below 1 means
# that meru needs less.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
meru=$(realpath "${1:-$here/build/release/tools/meru/meru}")
pairs=${PAIRS:-5}
images=${IMAGES:-300}
presets=${PRESETS:-ultrafast veryfast}
size=1920x1080
fps=30

if [[ -n ${BENCH_DIR:-} ]]; then
  mkdir -p "$BENCH_DIR"
  dir=$(realpath "$BENCH_DIR")
else
  dir=$(mktemp -d)
  trap 'rm -rf "$dir"' EXIT
fi
cd "$dir"

ff() { ffmpeg -nostdin -v error -y "$@"; }

if [[ $(stat -c %s images.bgra 2>/dev/null || echo 0) != $((1920 * 1080 * 4 * images)) ]]; then
  ff -f lavfi -i "testsrc2=size=$size:rate=$fps" -frames:v "$images" -pix_fmt bgra -f rawvideo images.bgra
fi
ff -f lavfi -i "sine=frequency=440:sample_rate=48000" -t "$(awk "BEGIN { print $images / $fps }")" -ac 2 -f s16le sound.pcm

raw_video=(-f rawvideo -pix_fmt bgra -video_size "$size" -framerate "$fps" -i images.bgra)
raw_audio=(-f s16le -ar 48000 -ac 2 -i sound.pcm)
h264=(-c:v libx264 -crf 23 -g 60 -bf 0 -pix_fmt yuv420p -sws_flags bicubic)

run_ffmpeg() { # preset, sound or silent
  if [[ $2 == sound ]]; then
    ff "${raw_video[@]}" "${raw_audio[@]}" "${h264[@]}" -preset "$1" -c:a aac -b:a 128k ffmpeg.mp4
  else
    ff "${raw_video[@]}" "${h264[@]}" -preset "$1" ffmpeg.mp4
  fi
}

run_meru() {
  local sound=()
  if [[ $2 == sound ]]; then sound=(--audio-raw sound.pcm --rate 48000 --channels 2 --a-bitrate 128); fi
  "$meru" record --video-raw images.bgra --size "$size" --fps "$fps" --pix-fmt bgra "${sound[@]}" \
    --preset "$1" --gop 60 -o meru.mp4 >/dev/null
}

# Appends "wall cpu MiB" of one run to a file.
measure() { # command, preset, sound, figures
  local times
  times=$(mktemp "$dir/times.XXXXXX")
  export -f ff run_ffmpeg run_meru
  export meru size fps
  /usr/bin/time -o "$times" -f "%e %U %S %M" \
    bash -c "$(declare -p raw_video raw_audio h264); $1 $2 $3"
  awk '{ printf "%.2f %.2f %.1f\n", $1, $2 + $3, $4 / 1024 }' "$times" >>"$4"
  rm -f "$times"
}

frames_of() {
  ffprobe -v error -count_packets -select_streams v:0 -show_entries stream=nb_read_packets -of csv=p=0 "$1" | tr -d ,
}

median() { # file, column
  awk -v c="$2" '{ print $c }' "$1" | sort -n | awk '{ v[NR] = $1 } END { print (v[int((NR + 1) / 2)] + v[int(NR / 2) + 1]) / 2 }'
}

printf '%d images of %s, %d pairs, load %s\n' "$images" "$size" "$pairs" "$(cut -d' ' -f1 /proc/loadavg)"
printf '%-10s %-7s | %7s %7s %7s | %7s %7s %7s | %6s %6s %6s\n' preset sound \
  "ffmpeg" "cpu" "MiB" "meru" "cpu" "MiB" "wall" "cpu" "MiB"
for preset in $presets; do
  for sound in silent sound; do
    rm -f ffmpeg.txt meru.txt
    # Once each, unmeasured: the source is in memory and the programs are loaded.
    run_ffmpeg "$preset" "$sound"
    run_meru "$preset" "$sound"
    for movie in ffmpeg.mp4 meru.mp4; do
      if [[ $(frames_of "$movie") != "$images" ]]; then
        echo "$movie does not hold $images images" >&2
        exit 1
      fi
    done
    for ((i = 0; i < pairs; i++)); do
      measure run_ffmpeg "$preset" "$sound" ffmpeg.txt
      measure run_meru "$preset" "$sound" meru.txt
    done
    f=("$(median ffmpeg.txt 1)" "$(median ffmpeg.txt 2)" "$(median ffmpeg.txt 3)")
    m=("$(median meru.txt 1)" "$(median meru.txt 2)" "$(median meru.txt 3)")
    printf '%-10s %-7s | %7.2f %7.2f %7.1f | %7.2f %7.2f %7.1f | %6.3f %6.3f %6.3f\n' "$preset" "$sound" \
      "${f[@]}" "${m[@]}" \
      "$(awk "BEGIN { print ${m[0]} / ${f[0]} }")" "$(awk "BEGIN { print ${m[1]} / ${f[1]} }")" \
      "$(awk "BEGIN { print ${m[2]} / ${f[2]} }")"
  done
done
