#!/usr/bin/env bash
# What the library needs beside others that do the same work, on the same machine, in the same run, turn by turn: a table
# with a line for each workload and each peer.
#
# usage: bench/compare.sh [WORKLOAD...]
#   ultrafast  BGRA images of 1920x1080, preset ultrafast; beside the ffmpeg command and GStreamer
#   sound      the same with PCM
#   veryfast   the same without, preset veryfast
#   4k         images of 3840x2160, a quarter as many
#   scaled     images of 1920x1080 to a movie of 1280x720
#   five       images of 1280x720, 60 a second, to five files at once; beside ffmpeg's tee muxer and GStreamer's tee
#   frames     YUV420P frames pushed with MERU_write_video_frame, beside a loop around the same encoder and muxer
#   remux      a gigabyte of packets; beside ffmpeg -c copy (bench/remux.sh)
#   repair     a cut movie of a gigabyte; beside cp and ffmpeg -c copy (bench/repair.sh)
#   index      the same as ultrafast with a side index, beside without
#   All of them when none is named.
# environment:
#   BUILD=build/bench   folder of a build with the preset `bench`
#   PAIRS=5             runs of each side per line
#   IMAGES=300          images of 1920x1080; twice as many of 1280x720. 300 need 2.5 GB, which have to stay in memory
#   BENCH_DIR           folder for sources and movies, on a fast disk; a new one, removed afterwards, when not given
#   SECONDS_OF_VIDEO    as bench/remux.sh has it
#   REPAIR_IMAGES=2400  images of the movie that is repaired
#
# Times are seconds, memory is the peak of resident memory in MiB, all medians; a ratio is the median of the ratios of the
# pairs, and below 1 when the library needs less. The marks are what each ratio should not exceed.
source "$(dirname "$0")/common.sh"

build=$(realpath "${BUILD:-$here/build/bench}")
meru=$build/tools/meru/meru
frames=$build/bench/frames
pairs=${PAIRS:-5}
images=${IMAGES:-300}
all=(ultrafast sound veryfast index scaled 4k five frames remux repair)
workloads=("$@")
[[ $# -gt 0 ]] || workloads=("${all[@]}")
for workload in "${workloads[@]}"; do
  case " ${all[*]} " in
    *" $workload "*) ;;
    *) echo "no such workload: $workload (there are ${all[*]})" >&2; exit 2 ;;
  esac
done
for program in "$meru" "$frames"; do
  [[ -x $program ]] || { echo "$program is missing: cmake --preset bench && cmake --build --preset bench" >&2; exit 2; }
done
enter_folder

gst_packages=(gstreamer1.0-tools gstreamer1.0-plugins-{base,good,bad,ugly} gstreamer1.0-libav)
has_gst() {
  local element
  for element in rawvideoparse rawaudioparse videoconvert videoscale x264enc avenc_aac aacparse mp4mux; do
    gst-inspect-1.0 --exists "$element" 2>/dev/null || return 1
  done
}
with_gst=yes
has_gst || { with_gst=; echo "GStreamer is left out; it needs: apt-get install ${gst_packages[*]}" >&2; }

# The commands of the workload at hand, by the name of the side. Each writes its movie to NAME.mp4.
declare -a meru_command ffmpeg_command gst_command
declare -a peers movies  # the other sides; what every side writes besides
declare -A marks         # "PEER FIGURE" to the mark

# Sources of one size at a time: the next run has to find its own in memory.
use_images() {  # SIZE FPS IMAGES
  local file
  for file in source-*.bgra; do [[ $file == "source-$1.bgra" ]] || rm -f "$file"; done
  source=source-$1.bgra size=$1 fps=$2 count=$3
  make_images "$source" "$size" "$fps" "$count"
}

# Sets the three commands that record `source`. The encoder's settings are those of bench/record.sh.
set_recording() {  # PRESET [SIZE_OF_THE_MOVIE]
  local out_size=${2:-$size} meru_size=() ffmpeg_size=() gst_size=()
  if [[ $out_size != "$size" ]]; then
    meru_size=(--out-size "$out_size")
    ffmpeg_size=(-s "$out_size")
    gst_size=(videoscale method=catrom !)
  fi
  meru_command=("$meru" record --video-raw "$source" --size "$size" --fps "$fps" --pix-fmt bgra --preset "$1" --gop 60
    "${meru_size[@]}" -o meru.mp4)
  ffmpeg_command=(ffmpeg -nostdin -v error -y -f rawvideo -pix_fmt bgra -video_size "$size" -framerate "$fps" -i "$source"
    -c:v libx264 -crf 23 -g 60 -bf 0 -pix_fmt yuv420p -sws_flags bicubic "${ffmpeg_size[@]}" -preset "$1" ffmpeg.mp4)
  # Of its own accord x264enc would hold the rate down to 2 Mbit/s; without a buffer it does not.
  gst_command=(gst-launch-1.0 -q
    filesrc location="$source" blocksize=$((${size%x*} * ${size#*x} * 4)) !
    rawvideoparse format=bgra width="${size%x*}" height="${size#*x}" framerate="$fps/1" ! queue !
    "${gst_size[@]}" videoconvert ! "video/x-raw,format=I420,width=${out_size%x*},height=${out_size#*x}" ! queue !
    x264enc speed-preset="$1" pass=qual quantizer=23 vbv-buf-capacity=0 key-int-max=60 bframes=0)
  movies=()
}
end_gst() { gst_command+=(! mp4mux name=mux ! filesink location=gst.mp4); }

set_peers() {  # PEER..., as far as they are there
  local peer
  peers=()
  for peer in "$@"; do [[ $peer == gst && -z $with_gst ]] || peers+=("$peer"); done
}

prepare_ultrafast() {
  use_images 1920x1080 30 "$images"
  set_recording ultrafast
  end_gst
  set_peers ffmpeg gst
  marks=([ffmpeg wall]=0.65 [ffmpeg cpu]=0.7 [ffmpeg memory]=1.0 [gst wall]=0.65)
}

prepare_sound() {
  prepare_ultrafast
  make_sound sound.pcm "$fps" "$count"
  meru_command+=(--audio-raw sound.pcm --rate 48000 --channels 2 --a-bitrate 128)
  local place=$((${#ffmpeg_command[@]} - 1))
  ffmpeg_command=("${ffmpeg_command[@]:0:5}" -f s16le -ar 48000 -ac 2 -i sound.pcm "${ffmpeg_command[@]:5:place-5}"
    -c:a aac -b:a 128k ffmpeg.mp4)
  gst_command+=(filesrc location=sound.pcm !
    rawaudioparse format=pcm pcm-format=s16le sample-rate=48000 num-channels=2 ! queue !
    audioconvert ! avenc_aac bitrate=128000 ! aacparse ! queue ! mux.)
  marks=()
}

prepare_veryfast() {
  use_images 1920x1080 30 "$images"
  set_recording veryfast
  end_gst
  set_peers ffmpeg gst
  marks=([ffmpeg wall]=0.82)
}

prepare_4k() {
  use_images 3840x2160 30 $(((images + 3) / 4))
  set_recording ultrafast
  end_gst
  set_peers ffmpeg gst
  marks=([ffmpeg wall]=0.65 [ffmpeg cpu]=0.7 [gst wall]=0.65)
}

prepare_scaled() {
  use_images 1920x1080 30 "$images"
  set_recording ultrafast 1280x720
  end_gst
  set_peers ffmpeg gst
  marks=([ffmpeg wall]=0.95)
}

prepare_five() {
  use_images 1280x720 60 $((images * 2))
  set_recording ultrafast
  set_peers ffmpeg gst
  unset 'ffmpeg_command[-1]'
  gst_command+=(! tee name=outputs outputs. ! queue ! mp4mux ! filesink location=gst.mp4)
  local i tee=ffmpeg.mp4
  for i in 1 2 3 4; do
    meru_command+=(--also "meru-$i.mp4")
    tee+="|ffmpeg-$i.mp4"
    gst_command+=(outputs. ! queue ! mp4mux ! filesink location="gst-$i.mp4")
    movies+=("-$i")
  done
  ffmpeg_command+=(-map 0:v -flags +global_header -f tee "$tee")
  marks=([ffmpeg wall]=1.0)
}

prepare_frames() {
  size=1920x1080 fps=30 count=$images source=source-$size.yuv
  rm -f source-*.bgra
  has_size $source $((1920 * 1080 * 3 / 2 * count)) ||
    ff -f lavfi -i "testsrc2=size=$size:rate=$fps" -frames:v "$count" -pix_fmt yuv420p -f rawvideo "$source"
  meru_command=("$frames" meru --input "$source" --size "$size" --fps "$fps" -o meru.mp4)
  bare_command=("$frames" bare --input "$source" --size "$size" --fps "$fps" -o bare.mp4)
  movies=()
  set_peers bare
  marks=([bare wall]=1.03)
}

prepare_index() {
  prepare_ultrafast
  without_command=("${meru_command[@]}")
  without_command[-1]=without.mp4
  meru_command+=(--index meru.index)
  set_peers without
  marks=([without cpu]=1.01)
}

need_movies() {  # SIDE
  local movie
  for movie in "" "${movies[@]}"; do need_frames "$1$movie.mp4" "$count"; done
}

# Every second round begins with the other side, so that neither has the better place.
run_pairs() {
  local side round sides order
  sides=(meru "${peers[@]}")
  rm -f times.*
  for ((round = -1; round < pairs; round++)); do
    order=("${sides[@]}")
    ((round % 2 == 0)) || order=("${peers[@]}" meru)
    for side in "${order[@]}"; do
      local -n command=${side}_command
      # The first round is not counted: the source is in memory then, and the programs are loaded.
      if ((round < 0)); then measure /dev/null "${command[@]}"; else measure "times.$side" "${command[@]}"; fi
      need_movies "$side"
    done
  done
}

names=([1]=wall [2]=cpu [3]=memory)
row() {  # WORKLOAD PEER: of times.meru and times.PEER
  local column ratio=() verdict=()
  for column in 1 2 3; do
    ratio[column]=$(median_ratio times.meru "times.$2" $column)
    local name=${names[column]}
    local mark=${marks[$2 $name]:-}
    [[ -z $mark ]] ||
      verdict+=("$name $mark $(awk "BEGIN { print ${ratio[column]} <= $mark ? \"kept\" : \"missed\" }")")
  done
  printf '| %-9s | %-7s | %6.2f | %6.2f | %6.1f | %6.2f | %6.2f | %6.1f | %5.3f | %5.3f | %5.3f | %s |\n' "$1" "$2" \
    "$(median times.meru 1)" "$(median times.meru 2)" "$(median times.meru 3)" \
    "$(median "times.$2" 1)" "$(median "times.$2" 2)" "$(median "times.$2" 3)" \
    "${ratio[@]}" "$(IFS=';'; echo "${verdict[*]}" | sed 's/;/, /g')"
}

# Another script's figures, which it leaves behind in its folder.
run_script() {  # NAME PEER...
  local name=$1
  shift
  rm -f source-*
  mkdir -p "$name"
  ROUNDS=$pairs IMAGES=${REPAIR_IMAGES:-2400} BENCH_DIR=$dir/$name "$here/bench/$name.sh" "$meru" >/dev/null
  rm -f times.*
  mv "$name"/times.* .
  [[ -n ${BENCH_DIR:-} ]] || rm -rf "${dir:?}/$name"
  peers=("$@")
}

run_workload() {  # WORKLOAD
  local peer
  case $1 in
    remux)
      marks=([ffmpeg wall]=1.0)
      run_script remux ffmpeg
      ;;
    repair)
      marks=([cp wall]=1.3)
      run_script repair cp ffmpeg
      ;;
    *)
      "prepare_$1"
      run_pairs
      ;;
  esac
  for peer in "${peers[@]}"; do row "$1" "$peer"; done
}

printf '%d images of 1920x1080, %d pairs, load %s\n\n' "$images" "$pairs" "$(load)"
echo '| workload  | peer    | meru s |  cpu s |    MiB | peer s |  cpu s |    MiB |  wall |   cpu |   MiB | marks |'
echo '|-----------|---------|-------:|-------:|-------:|-------:|-------:|-------:|------:|------:|------:|-------|'
for workload in "${workloads[@]}"; do run_workload "$workload"; done
