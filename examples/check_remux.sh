#!/usr/bin/env bash
# Lets ffmpeg encode a movie, remuxes its streams with the example, and compares the pictures and the sound that decode.
#   check_remux.sh REMUX FOLDER
set -euo pipefail
remux=$1
cd "$2"
ff() { ffmpeg -nostdin -v error -y "$@"; }
ff -f lavfi -i testsrc2=size=320x180:rate=25 -f lavfi -i sine=sample_rate=48000 -t 3 -c:v libx264 -bf 0 -c:a aac made.mp4
ff -i made.mp4 -map 0:v -c copy made.h264 -map 0:a -c copy made.aac
"$remux" made.h264 made.aac 25 remuxed.mp4
hashes() { ffmpeg -nostdin -v error -i "$1" -map "$2" -f framemd5 - | grep -v '^#' | awk -F, '{ print $NF }'; }
for stream in h264 aac; do
  diff <(hashes made.$stream 0) <(hashes remuxed.mp4 0:$([ $stream = h264 ] && echo v || echo a)) || exit 1
done
echo "$(hashes remuxed.mp4 0:v | wc -l) pictures came through"
