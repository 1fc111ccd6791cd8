#!/usr/bin/env bash
# What the bound on the encoder's delay costs: x264 with the options that it sets, by the ffmpeg command, which can be
# given them one by one.
#
# usage: bench/encoder_limit.sh
# environment:
#   IMAGES=300     images in the source, 1280x720
#   BENCH_DIR      folder for source and movies; a new one, removed afterwards, when not given
#
# Each line: how much larger the rate is that gives the same quality as the preset's own delay does at crf 23, by SSIM and
# by PSNR. Both are interpolated between five values of crf, in the logarithm of the rate.
source "$(dirname "$0")/common.sh"

images=${IMAGES:-300}

enter_folder

# A zoom with the noise of a camera in it.
if ! [[ -f images.y4m ]]; then
  ff -f lavfi -i "mandelbrot=size=1280x720:rate=30:end_pts=$((images * 4)),noise=alls=6:allf=t" \
    -frames:v "$images" -pix_fmt yuv420p images.y4m
fi

curve() {  # FILE PRESET OPTION...: lines "rate ssim psnr", best quality first
  local file=$1 preset=$2 crf
  shift 2
  rm -f "$file"
  for crf in 19 21 23 25 27; do
    ff -i images.y4m -c:v libx264 -preset "$preset" -crf $crf -bf 0 -g 60 "$@" movie.mp4
    printf '%s %s\n' \
      "$(ffprobe -v error -select_streams v -show_entries stream=bit_rate -of csv=p=0 movie.mp4)" \
      "$(ffmpeg -nostdin -i movie.mp4 -i images.y4m -lavfi '[0][1]ssim;[0][1]psnr' -f null - 2>&1 |
        awk '/SSIM/ { sub(/.*All:/, ""); ssim = $1 } /PSNR/ { sub(/.*average:/, ""); psnr = $1 } END { print ssim, psnr }')" \
      >>"$file"
  done
}

try() {  # NAME PRESET OPTION...
  local name=$1 preset=$2
  shift 2
  curve curve "$preset" "$@"
  awk -v name="$preset, $name" '
    NR == FNR { if (FNR == 3) for (q = 2; q <= 3; ++q) wanted[q] = $q; if (FNR == 3) own = $1; next }
    { for (q = 1; q <= 3; ++q) v[FNR, q] = $q; n = FNR }
    END {
      printf "%-40s", name
      for (q = 2; q <= 3; ++q) {
        for (i = 1; i < n - 1 && v[i + 1, q] > wanted[q]; ++i) continue
        part = (v[i, q] - wanted[q]) / (v[i, q] - v[i + 1, q])
        rate = exp(log(v[i, 1]) + part * (log(v[i + 1, 1]) - log(v[i, 1])))
        printf "  %s %+5.1f %%", q == 2 ? "SSIM" : "PSNR", (rate / own - 1) * 100
      }
      print ""
    }' own curve
}

limited() {  # LOOKAHEAD: as limit_held_frames
  echo -thread_type slice -rc-lookahead "$1" -x264-params "sync-lookahead=0$([[ $1 -gt 1 ]] || echo :force-cfr=1)"
}

printf '%d images of 1280x720, %d processors, load %s\n' "$images" "$(nproc)" "$(load)"
for preset in ultrafast veryfast medium; do
  curve own $preset
  for held in 0 1 2 7 10 16; do
    if [[ $preset = ultrafast && $held -gt 0 ]] || [[ $preset = veryfast && $held -gt 10 ]]; then continue; fi
    # shellcheck disable=SC2046
    try "look-ahead $held, slices" $preset $(limited $held)
  done
  try "zerolatency" $preset -tune zerolatency
done
# shellcheck disable=SC2046
curve own veryfast && try "look-ahead 7, 8 slices" veryfast $(limited 7) -threads 8
