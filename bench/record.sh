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
source "$(dirname "$0")/common.sh"

meru=$(realpath "${1:-$here/build/release/tools/meru/meru}")
pairs=${PAIRS:-5}
images=${IMAGES:-300}
presets=${PRESETS:-ultrafast veryfast}
size=1920x1080
fps=30

enter_folder

make_images images.bgra "$size" "$fps" "$images"
make_sound sound.pcm "$fps" "$images"

raw_video=(-f rawvideo -pix_fmt bgra -video_size "$size" -framerate "$fps" -i images.bgra)
raw_audio=(-f s16le -ar 48000 -ac 2 -i sound.pcm)
h264=(-c:v libx264 -crf 23 -g 60 -bf 0 -pix_fmt yuv420p -sws_flags bicubic)

set_commands() {  # PRESET, "sound" or "silent": what is measured
  local ffmpeg_sound=() codec=() meru_sound=()
  if [[ $2 == sound ]]; then
    ffmpeg_sound=("${raw_audio[@]}")
    codec=(-c:a aac -b:a 128k)
    meru_sound=(--audio-raw sound.pcm --rate 48000 --channels 2 --a-bitrate 128)
  fi
  ffmpeg_command=(ffmpeg -nostdin -v error -y "${raw_video[@]}" "${ffmpeg_sound[@]}" "${h264[@]}" -preset "$1"
    "${codec[@]}" ffmpeg.mp4)
  meru_command=("$meru" record --video-raw images.bgra --size "$size" --fps "$fps" --pix-fmt bgra "${meru_sound[@]}"
    --preset "$1" --gop 60 -o meru.mp4)
}

printf '%d images of %s, %d pairs, load %s\n' "$images" "$size" "$pairs" "$(load)"
printf '%-10s %-7s | %7s %7s %7s | %7s %7s %7s | %6s %6s %6s\n' preset sound \
  "ffmpeg" "cpu" "MiB" "meru" "cpu" "MiB" "wall" "cpu" "MiB"
for preset in $presets; do
  for sound in silent sound; do
    rm -f ffmpeg.txt meru.txt
    set_commands "$preset" "$sound"
    # Once each, unmeasured: the source is in memory and the programs are loaded.
    measure /dev/null "${ffmpeg_command[@]}"
    measure /dev/null "${meru_command[@]}"
    need_frames ffmpeg.mp4 "$images"
    need_frames meru.mp4 "$images"
    for ((i = 0; i < pairs; i++)); do
      measure ffmpeg.txt "${ffmpeg_command[@]}"
      measure meru.txt "${meru_command[@]}"
    done
    f=("$(median ffmpeg.txt 1)" "$(median ffmpeg.txt 2)" "$(median ffmpeg.txt 3)")
    m=("$(median meru.txt 1)" "$(median meru.txt 2)" "$(median meru.txt 3)")
    printf '%-10s %-7s | %7.2f %7.2f %7.1f | %7.2f %7.2f %7.1f | %6.3f %6.3f %6.3f\n' "$preset" "$sound" \
      "${f[@]}" "${m[@]}" \
      "$(awk "BEGIN { print ${m[0]} / ${f[0]} }")" "$(awk "BEGIN { print ${m[1]} / ${f[1]} }")" \
      "$(awk "BEGIN { print ${m[2]} / ${f[2]} }")"
  done
done
