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
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
meru=$(realpath "${1:-$here/build/release/tools/meru/meru}")
rounds=${ROUNDS:-5}
seconds=${SECONDS_OF_VIDEO:-400}

if [[ -n ${BENCH_DIR:-} ]]; then
  mkdir -p "$BENCH_DIR"
  dir=$(realpath "$BENCH_DIR")
else
  dir=$(mktemp -d)
  trap 'rm -rf "$dir"' EXIT
fi
cd "$dir"
ff() { ffmpeg -nostdin -v error -y "$@"; }

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

run_ffmpeg() { ffmpeg -nostdin -v error -y -framerate 30 -i v.h264 -i a.aac -c copy out.mp4; }
run_meru() { "$meru" remux --video v.h264 --fps 30 --audio a.aac -o out.mp4 >/dev/null; }
export -f run_ffmpeg run_meru
export meru

measure() { # command, figures
  rm -f out.mp4
  /usr/bin/time -a -o "$2" -f "%e %U %S %M" bash -c "run_$1"
}

median() { # file, expression over the columns
  awk "{ print $2 }" "$1" | sort -n | awk '{ v[NR] = $1 } END { print (v[int((NR + 1) / 2)] + v[int(NR / 2) + 1]) / 2 }'
}

packets_of() { ffprobe -v error -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "$1" | paste -sd ' '; }

rm -f times.*
measure ffmpeg unused # once each, so that everything is in memory
expected=$(packets_of out.mp4)
measure meru unused
rm -f unused
[[ $(packets_of out.mp4) == "$expected" ]] || { echo "packets: $(packets_of out.mp4) instead of $expected" >&2; exit 1; }
for ((i = 0; i < rounds; i++)); do
  for command in ffmpeg meru; do measure $command times.$command; done
done

printf '%d MiB, packets %s, %d rounds, load %s\n' "$(($(stat -c %s v.h264) >> 20))" "$expected" "$rounds" \
  "$(cut -d' ' -f1 /proc/loadavg)"
printf '%-8s %7s %7s %7s\n' "" wall cpu MiB
for command in ffmpeg meru; do
  printf '%-8s %7.2f %7.2f %7.1f\n' $command "$(median times.$command '$1')" "$(median times.$command '$2 + $3')" \
    "$(median times.$command '$4 / 1024')"
done
paste times.meru times.ffmpeg | awk '{ print $1 / $5 }' >ratios
printf 'meru / ffmpeg  %.3f (median of the rounds)\n' "$(median ratios '$1')"
