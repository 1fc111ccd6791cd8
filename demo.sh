#!/usr/bin/env bash
# Builds MeruLib and makes five movies in ./demo-out: five seconds of a screen, ten of the library's test picture and tone,
# a raw stream that another program makes and pipes in, one that is repaired after its recorder was killed, and one of
# packets that are encoded already. Shows what is in each, and leaves a contact sheet beside it.
set -euo pipefail
cd "$(dirname "$0")"
out=demo-out
size=1280x720 fps=30 seconds=10 rate=48000

step() { printf '\n== %s\n' "$*"; }

# run LOG COMMAND...: what it prints goes to the log, and to the terminal when it fails.
run() {
  local log=$1
  shift
  "$@" >"$log" 2>&1 || { cat "$log" >&2; echo "failed: $*" >&2; return 1; }
}

probe() { ffprobe -v error -of default=nw=1:nk=1 "$@"; }  # one value a line

describe() {  # MOVIE INDEX
  local movie=$1 index=$2 video audio
  mapfile -t video < <(probe -select_streams v -count_frames \
    -show_entries stream=codec_name,width,height,start_time,duration,nb_read_frames "$movie")
  mapfile -t audio < <(probe -select_streams a -count_frames \
    -show_entries stream=codec_name,sample_rate,channels,start_time,duration,nb_read_frames "$movie")
  if [ ${#video[@]} -ne 6 ] || [ ${#audio[@]} -ne 6 ]; then
    echo "$movie lacks a stream" >&2
    return 1
  fi
  local shift_sec records
  shift_sec=$(awk -v a="${audio[3]}" -v v="${video[3]}" 'BEGIN { printf "%.6f", a - v }')
  records=$(grep -v '^[#{]' "$index" | tr -cd ';' | wc -c)
  printf '%-32s %-8s %-16s %6s  %s\n' "$movie" codec "size" frames duration
  printf '%-32s %-8s %-16s %6s  %s s\n' "  video" "${video[0]}" "${video[1]}x${video[2]}" "${video[5]}" "${video[4]}"
  printf '%-32s %-8s %-16s %6s  %s s\n' "  audio" "${audio[0]}" "${audio[1]} Hz, ${audio[2]} ch" "${audio[5]}" "${audio[4]}"
  printf '%-32s %s s\n' "  audio start minus video start" "$shift_sec"
  printf '%-32s %s\n' "  index records" "$records"
}

contact_sheet() {  # MOVIE PNG: 20 pictures, evenly from the whole movie
  local frames
  frames=$(probe -select_streams v -count_packets -show_entries stream=nb_read_packets "$1")
  ffmpeg -nostdin -v error -y -i "$1" -vf "select='lt(mod(n*20,$frames),20)',scale=320:-1,tile=5x4:padding=8:margin=8:color=white" -frames:v 1 "$2"
  echo "contact sheet: $2"
}

step "packages"
tools/deps.sh build

step "build"
mkdir -p "$out"
run "$out/build.log" cmake -S . -B build/demo -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DMERU_BUILD_TESTS=OFF -DMERU_BUILD_EXAMPLES=OFF
run "$out/build.log" cmake --build build/demo
meru=build/demo/tools/meru/meru
echo "$meru"

step "a screen"
# A display of its own that nobody sees, with programs on it that move.
mkfifo "$out/display.$$"
Xvfb -displayfd 3 -screen 0 "${size}x24" -nolisten tcp 3>"$out/display.$$" >"$out/xvfb.log" 2>&1 &
screen=$!
trap 'kill $screen 2>/dev/null || true; rm -f "$out/display.$$"' EXIT
read -r number <"$out/display.$$" || { cat "$out/xvfb.log" >&2; echo "there is no display" >&2; exit 1; }
on_screen() { DISPLAY=:$number "$@" >>"$out/xvfb.log" 2>&1; }
on_screen ico -geometry 860x680+20+20 -size 360x360 -delta +9+7 -bg '#24506e' -sleep 0.02 &
on_screen xclock -update 1 -geometry 360x360+900+20 -bg '#fff8e0' &
on_screen xeyes -geometry 360x300+900+400 -bg '#8fb98b' &
sleep 1
"$meru" screen --display ":$number" --fps "$fps" --seconds 5 --audio none -o "$out/screen.mp4"
kill "$screen"
wait
trap - EXIT
rm -f "$out/display.$$"
contact_sheet "$out/screen.mp4" "$out/screen.png"

step "test picture and tone"
run "$out/test.log" "$meru" record --test --size "$size" --fps "$fps" --seconds "$seconds" \
  -o "$out/test.mp4" --index "$out/test.index"
describe "$out/test.mp4" "$out/test.index"
contact_sheet "$out/test.mp4" "$out/test.png"

step "a raw stream, piped in"
piped() {
  ffmpeg -nostdin -v error -f lavfi -i "testsrc2=size=$size:rate=$fps" -t "$seconds" -pix_fmt bgra -f rawvideo - |
    "$meru" record --video-raw - --size "$size" --fps "$fps" --pix-fmt bgra \
      --audio-raw <(ffmpeg -nostdin -v error -f lavfi -i "sine=frequency=440:beep_factor=4:sample_rate=$rate" \
        -t "$seconds" -ac 2 -f s16le -) --rate "$rate" --channels 2 --sample-fmt s16 \
      -o "$out/piped.mp4" --index "$out/piped.index"
}
run "$out/piped.log" piped
describe "$out/piped.mp4" "$out/piped.index"
contact_sheet "$out/piped.mp4" "$out/piped.png"

step "a recorder that is killed, and the repair"
"$meru" record --test --size "$size" --fps "$fps" --realtime -o "$out/killed.mp4" --index "$out/killed.index" \
  >"$out/killed.log" 2>&1 &
recorder=$!
trap 'kill -9 $recorder 2>/dev/null || true' EXIT
# Until it says that five seconds are recorded.
for ((i = 0; i < 300; i++)); do
  if grep -q '^00:00:05' "$out/killed.log"; then break; fi
  sleep 0.1
done
grep -q '^00:00:05' "$out/killed.log" || { cat "$out/killed.log" >&2; echo "the recording did not begin" >&2; exit 1; }
kill -9 "$recorder"
wait "$recorder" 2>/dev/null || true
trap - EXIT
echo "killed at: $(tail -1 "$out/killed.log")"
if refusal=$(ffprobe -v error "$out/killed.mp4" 2>&1); then
  echo "the killed movie plays: nothing to repair" >&2
  exit 1
fi
echo "ffprobe says: ${refusal#*] }"
"$meru" repair --force "$out/killed.mp4" "$out/killed.index" "$out/repaired.mp4"
describe "$out/repaired.mp4" "$out/killed.index"
contact_sheet "$out/repaired.mp4" "$out/repaired.png"

step "packets that are encoded already"
ff() { ffmpeg -nostdin -v error -y "$@"; }
ff -f lavfi -i "testsrc2=size=$size:rate=$fps" -t "$seconds" -c:v libx264 -preset veryfast -bf 0 -f h264 "$out/packets.h264"
ff -f lavfi -i "sine=frequency=440:beep_factor=4:sample_rate=$rate" -t "$seconds" -ac 2 -c:a aac "$out/packets.aac"
"$meru" remux --video "$out/packets.h264" --fps "$fps" --audio "$out/packets.aac" \
  -o "$out/remuxed.mp4" --index "$out/remuxed.index"
describe "$out/remuxed.mp4" "$out/remuxed.index"
pictures() { ffmpeg -nostdin -v error -i "$1" -map 0:v -f md5 -; }
if [ "$(pictures "$out/packets.h264")" != "$(pictures "$out/remuxed.mp4")" ]; then
  echo "the pictures are not those of the packets" >&2
  exit 1
fi
echo "every picture decodes as before: $(pictures "$out/remuxed.mp4")"
contact_sheet "$out/remuxed.mp4" "$out/remuxed.png"
