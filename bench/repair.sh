#!/usr/bin/env bash
# Repairing a cut movie of about a gigabyte, beside copying it with cp and remuxing the whole one with ffmpeg -c copy,
# turn by turn.
#
# usage: bench/repair.sh [MERU]
#   MERU           the command to measure, build/release/tools/meru/meru when not given
# environment:
#   ROUNDS=5       runs of each command
#   IMAGES=2400    images in the movie, some 430 kB each
#   BENCH_DIR      folder for the movies, with three times their room; a new one, removed afterwards, when not given
#
# The figures are medians: wall clock and processor time in seconds, peak resident memory in MiB.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
meru=$(realpath "${1:-$here/build/release/tools/meru/meru}")
rounds=${ROUNDS:-5}
images=${IMAGES:-2400}
size=640x360
image_bytes=$((640 * 360 * 4))

if [[ -n ${BENCH_DIR:-} ]]; then
  mkdir -p "$BENCH_DIR"
  dir=$(realpath "$BENCH_DIR")
else
  dir=$(mktemp -d)
  trap 'rm -rf "$dir"' EXIT
fi
cd "$dir"

# Noise, which no encoder makes small; a second of it over and over.
if [[ ! -s whole.mp4 ]]; then
  head -c $((image_bytes * 30)) /dev/urandom >noise.bgra
  for ((i = 0; i < images / 30; i++)); do cat noise.bgra; done |
    "$meru" record --video-raw - --size $size --fps 30 --pix-fmt bgra --preset ultrafast --qp 1 \
      --audio-raw <(head -c $((192000 * images / 30)) /dev/urandom) -o whole.mp4 --index whole.index >/dev/null
  rm noise.bgra
fi
# Without its table, as a crash leaves it.
table=$(grep -abo moov whole.mp4 | tail -1 | cut -d: -f1)
head -c $((table - 4)) whole.mp4 >broken.mp4

run_cp() { cp whole.mp4 out.mp4; }
run_ffmpeg() { ffmpeg -nostdin -v error -y -i whole.mp4 -map 0 -c copy out.mp4; }
run_meru() { "$meru" repair broken.mp4 whole.index out.mp4 >/dev/null; }
export -f run_cp run_ffmpeg run_meru
export meru

measure() { # command, figures
  rm -f out.mp4
  /usr/bin/time -a -o "$2" -f "%e %U %S %M" bash -c "run_$1"
}

median() { # file, expression over the columns
  awk "{ print $2 }" "$1" | sort -n | awk '{ v[NR] = $1 } END { print (v[int((NR + 1) / 2)] + v[int(NR / 2) + 1]) / 2 }'
}

packets_of() { ffprobe -v error -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "$1" | awk '{ sum += $1 } END { print sum }'; }

rm -f times.*
for command in cp ffmpeg meru; do measure $command unused; done # once each, so that everything is in memory
rm -f unused
lost=$(($(packets_of whole.mp4) - $(packets_of out.mp4)))
[[ $lost -eq 1 ]] || { echo "the repaired movie lacks $lost packets; it should lack the last one alone" >&2; exit 1; }
for ((i = 0; i < rounds; i++)); do
  for command in cp ffmpeg meru; do measure $command times.$command; done
done

printf '%d MiB, %d rounds, load %s\n' "$(($(stat -c %s broken.mp4) >> 20))" "$rounds" "$(cut -d' ' -f1 /proc/loadavg)"
printf '%-8s %7s %7s %7s\n' "" wall cpu MiB
for command in cp ffmpeg meru; do
  printf '%-8s %7.2f %7.2f %7.1f\n' $command "$(median times.$command '$1')" "$(median times.$command '$2 + $3')" \
    "$(median times.$command '$4 / 1024')"
done
# The ratio of each round, so that what slows the machine for a while slows both sides.
for command in cp ffmpeg; do
  paste times.meru times.$command | awk '{ print $1 / $5 }' >ratios
  printf 'meru / %-8s %.3f (median of the rounds)\n' $command "$(median ratios '$1')"
done
