# What the scripts of this folder share; to be sourced. They all print medians: wall clock and processor time in seconds,
# peak resident memory in MiB.
# shellcheck shell=bash
set -euo pipefail
export LC_ALL=C  # figures with a point

here=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# Makes and enters the folder that sources and movies are written to: BENCH_DIR, or a new one that is removed at the end.
# Sets `dir`.
enter_folder() {
  if [[ -n ${BENCH_DIR:-} ]]; then
    mkdir -p "$BENCH_DIR"
    dir=$(realpath "$BENCH_DIR")
  else
    dir=$(mktemp -d)
    trap 'rm -rf "$dir"' EXIT
  fi
  cd "$dir"
}

ff() { ffmpeg -nostdin -v error -y "$@"; }

has_size() { [[ $(stat -c %s "$1" 2>/dev/null || echo 0) == "$2" ]]; }  # FILE BYTES

# FILE SIZE FPS IMAGES: BGRA images of a moving test card, unless the file is there.
make_images() {
  has_size "$1" $((${2%x*} * ${2#*x} * 4 * $4)) ||
    ff -f lavfi -i "testsrc2=size=$2:rate=$3" -frames:v "$4" -pix_fmt bgra -f rawvideo "$1"
}

# FILE FPS IMAGES: as much sound as there are images; stereo, 48 kHz, 16 bit.
make_sound() {
  ff -f lavfi -i sine=frequency=440:sample_rate=48000 -t "$(awk "BEGIN { print $3 / $2 }")" -ac 2 -f s16le "$1"
}

# FIGURES COMMAND...: runs the command and appends a line "wall cpu MiB" to the file. What it prints is shown when it
# fails.
measure() {
  local figures=$1 times
  shift
  {
    times=$(TIMEFORMAT='%R %U %S'
      { time /usr/bin/time -o measured.peak -f %M "$@" >measured.out 2>&1 </dev/null; } 2>&1)
  } || { cat measured.out >&2; echo "failed: $*" >&2; return 1; }
  awk -v kib="$(<measured.peak)" '{ printf "%.3f %.3f %.1f\n", $1, $2 + $3, kib / 1024 }' <<<"$times" >>"$figures"
  rm -f measured.out measured.peak
}

median() {  # FILE COLUMN
  awk -v c="$2" '{ print $c }' "$1" | sort -n |
    awk '{ v[NR] = $1 } END { print (v[int((NR + 1) / 2)] + v[int(NR / 2) + 1]) / 2 }'
}

# FILE OTHER COLUMN: the median of the ratios of each round, so that what slows the machine for a while slows both sides.
median_ratio() {
  paste "$1" "$2" | awk -v c="$3" '{ print $c / $(c + 3) }' >measured.ratios
  median measured.ratios 1
  rm -f measured.ratios
}

packets_of() {  # MOVIE: of each stream
  ffprobe -v error -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "$1" | paste -sd ' '
}

frames_of() {  # MOVIE: of the pictures
  ffprobe -v error -count_packets -select_streams v:0 -show_entries stream=nb_read_packets -of csv=p=0 "$1" | tr -d ,
}

need_frames() {  # MOVIE IMAGES
  local frames
  frames=$(frames_of "$1")
  [[ $frames == "$2" ]] || { echo "$1 holds $frames images instead of $2" >&2; return 1; }
}

load() { cut -d' ' -f1 /proc/loadavg; }

# NAME FIGURES: measures the command NAME_command, which makes out.mp4 anew.
measure_copy() {
  local -n command=$1_command
  rm -f out.mp4
  measure "$2" "${command[@]}"
}

print_figures() {  # NAME...: the medians of times.NAME, a line each
  local name
  printf '%-8s %7s %7s %7s\n' "" wall cpu MiB
  for name in "$@"; do
    printf '%-8s %7.2f %7.2f %7.1f\n' "$name" "$(median "times.$name" 1)" "$(median "times.$name" 2)" \
      "$(median "times.$name" 3)"
  done
}
