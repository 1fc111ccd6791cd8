#!/usr/bin/env bash
# Muxing a gigabyte of H.264 and AAC: `meru remux` beside ffmpeg -c copy, turn by turn.
#
# usage: bench/remux.sh [MERU]
#   MERU           the command to measure, build/release/tools/meru/meru when not given
# environment:
#   ROUNDS=5       runs of each command
#   SECONDS_OF_VIDEO=400
#   BENCH_DIR      folder for the streams, with three times their room; a new one, removed afterwards, when not given
#
# The figures are medians: wall clock and processor time in seconds, peak resident memory in MiB.
source "$(dirname "$0")/common.sh"

meru=$(realpath "${1:-$here/build/release/tools/meru/meru}")
rounds=${ROUNDS:-5}
seconds=${SECONDS_OF_VIDEO:-400}

enter_folder

# Ten seconds of noisy pictures at 20 Mbit/s, over and over.
if [[ ! -s v.h264 ]]; then
  ff -f lavfi -i testsrc2=size=1280x720:rate=30 -vf noise=alls=60:allf=t -t 10 -c:v libx264 -preset ultrafast -bf 0 -g 60 \
    -b:v 20M -minrate 20M -maxrate 20M -bufsize 20M piece.h264
  ff -f lavfi -i anoisesrc=sample_rate=48000 -t 10 -ac 2 -c:a aac -b:a 128k piece.aac
  for ((i = 0; i < seconds / 10; i++)); do
    cat piece.h264 >>v.h264
    cat piece.aac >>a.aac
  done
  rm piece.*
fi
sync # or the disk would still be busy with them in the first rounds

ffmpeg_command=(ffmpeg -nostdin -v error -y -framerate 30 -i v.h264 -i a.aac -c copy out.mp4)
meru_command=("$meru" remux --video v.h264 --fps 30 --audio a.aac -o out.mp4)

need_packets() { [[ $(packets_of out.mp4) == "$1" ]] || { echo "packets: $(packets_of out.mp4) instead of $1" >&2; exit 1; }; }

rm -f times.*
measure_copy ffmpeg /dev/null # once each, so that everything is in memory
expected=$(packets_of out.mp4)
measure_copy meru /dev/null
need_packets "$expected"
for ((i = 0; i < rounds; i++)); do
  for name in ffmpeg meru; do
    measure_copy $name times.$name
    need_packets "$expected"
  done
done

printf '%d MiB, packets %s, %d rounds, load %s\n' "$(($(stat -c %s v.h264) >> 20))" "$expected" "$rounds" "$(load)"
print_figures ffmpeg meru
printf 'meru / ffmpeg  %.3f (median of the rounds)\n' "$(median_ratio times.meru times.ffmpeg 1)"
