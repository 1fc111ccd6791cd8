#!/usr/bin/env bash
# What presets, rate control and key frames cost: `meru record` of the same images with different settings.
#
# usage: bench/tuning.sh [MERU]
#   MERU           the command to measure, build/release/tools/meru/meru when not given
# environment:
#   ROUNDS=3       runs of each setting
#   IMAGES=300     images in the source, 1280x720
#   BENCH_DIR      folder for source and movies; a new one, removed afterwards, when not given
#
# Each line: processor time in milliseconds an image (the median of the rounds; scaling from BGRA is part of it), the rate
# that came out, and how like the source it is (SSIM, 1 is the same).
source "$(dirname "$0")/common.sh"

meru=$(realpath "${1:-$here/build/release/tools/meru/meru}")
rounds=${ROUNDS:-3}
images=${IMAGES:-300}
size=1280x720
fps=30

enter_folder

# A zoom with the noise of a camera in it.
if ! has_size images.bgra $((1280 * 720 * 4 * images)); then
  ff -f lavfi -i "mandelbrot=size=$size:rate=$fps:end_pts=$((images * 4)),noise=alls=6:allf=t" \
    -frames:v "$images" -pix_fmt bgra -f rawvideo images.bgra
fi

try() {  # NAME OPTION...
  local name=$1 i
  shift
  rm -f times
  for ((i = 0; i < rounds; i++)); do
    measure times "$meru" record --video-raw images.bgra --size $size --fps $fps --no-audio "$@" -o movie.mp4
  done
  local cpu rate ssim
  cpu=$(awk -v cpu="$(median times 2)" -v n="$images" 'BEGIN { print cpu * 1000 / n }')
  rate=$(ffprobe -v error -select_streams v -show_entries stream=bit_rate -of csv=p=0 movie.mp4)
  ssim=$(ffmpeg -nostdin -i movie.mp4 -f rawvideo -pix_fmt bgra -s $size -r $fps -i images.bgra \
    -lavfi "[1]format=yuv420p[b];[0][b]ssim" -f null - 2>&1 | sed -n 's/.*All:\([0-9.]*\).*/\1/p')
  printf '%-34s %8.1f ms %8d kbit/s  %.4f\n' "$name" "$cpu" "$((rate / 1000))" "$ssim"
}

printf '%d images of %s, load %s\n' "$images" $size "$(load)"
for preset in ultrafast superfast veryfast faster fast medium slow; do try "preset $preset" --preset $preset; done
for gop in 1 15 30 60 300; do try "veryfast, gop $gop" --gop $gop; done
for rate in 1000 2000 4000; do
  try "veryfast, abr $rate" --rate-control abr --v-bitrate $rate
  try "veryfast, cbr $rate" --rate-control cbr --v-bitrate $rate
  try "veryfast, vbr $rate" --rate-control vbr --v-bitrate $rate
done
for crf in 18 23 28; do try "veryfast, cbr, crf $crf" --rate-control cbr --crf $crf; done
for qp in 18 23 28; do try "veryfast, cqp, qp $qp" --rate-control cqp --qp $qp; done
for tune in zerolatency fastdecode film; do try "veryfast, tune $tune" --tune $tune; done
