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
source "$(dirname "$0")/common.sh"

meru=$(realpath "${1:-$here/build/release/tools/meru/meru}")
rounds=${ROUNDS:-5}
images=${IMAGES:-2400}
size=640x360
image_bytes=$((640 * 360 * 4))

enter_folder

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
sync # or the disk would still be busy with them in the first rounds

cp_command=(cp whole.mp4 out.mp4)
ffmpeg_command=(ffmpeg -nostdin -v error -y -i whole.mp4 -map 0 -c copy out.mp4)
meru_command=("$meru" repair broken.mp4 whole.index out.mp4)

all_packets_of() { packets_of "$1" | tr ' ' '\n' | awk '{ sum += $1 } END { print sum }'; }
whole_packets=$(all_packets_of whole.mp4)

need_repaired() {
  local lost=$((whole_packets - $(all_packets_of out.mp4)))
  [[ $lost -eq 1 ]] || { echo "the repaired movie lacks $lost packets; it should lack the last one alone" >&2; exit 1; }
}

rm -f times.*
for name in cp ffmpeg meru; do measure_copy $name /dev/null; done # once each, so that everything is in memory
need_repaired
for ((i = 0; i < rounds; i++)); do
  for name in cp ffmpeg meru; do measure_copy $name times.$name; done
  need_repaired
done

printf '%d MiB, %d rounds, load %s\n' "$(($(stat -c %s broken.mp4) >> 20))" "$rounds" "$(load)"
print_figures cp ffmpeg meru
for name in cp ffmpeg; do
  printf 'meru / %-8s %.3f (median of the rounds)\n' $name "$(median_ratio times.meru times.$name 1)"
done
